#include "tests/support/temp_dir.hpp"

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace orbweave::test {

std::string file_text(const std::string& path)
{
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

unsigned mode_of(const std::string& path)
{
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 0777 : 0;
}

temp_dir::temp_dir(const std::string& prefix)
{
    std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
    if (!mkdtemp(pattern.data()))
        throw std::system_error(errno, std::generic_category(), "mkdtemp");
    path_ = pattern;
}

temp_dir::~temp_dir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string temp_dir::file(const std::string& name) const
{
    return (path_ / name).string();
}

} // namespace orbweave::test
