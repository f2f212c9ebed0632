#pragma once

#include <filesystem>
#include <string>

namespace orbweave::test {

/// A file's whole text; empty when it cannot be read.
std::string file_text(const std::string& path);
/// A file's permission bits (0600, ...); 0 when there is no such file.
unsigned mode_of(const std::string& path);

/// A fresh directory under $TMPDIR (or /tmp), removed with everything in it on destruction.
class temp_dir {
public:
    explicit temp_dir(const std::string& prefix = "orbweave-test");
    ~temp_dir();
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    /// path() / name, as a string.
    std::string file(const std::string& name) const;

private:
    std::filesystem::path path_;
};

} // namespace orbweave::test
