#include "core/private_file.hpp"

#include "core/log.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace orbweave {

bool write_private_file(const std::string& path, const std::string& text)
{
    std::filesystem::path folder = std::filesystem::path(path).parent_path();
    if (!folder.empty() && !std::filesystem::exists(folder)) {
        std::error_code error;
        std::filesystem::create_directories(folder, error);
        if (error) {
            log::line("Cannot create " + folder.string() + ": ", error.message());
            return false;
        }
        ::chmod(folder.c_str(), 0700);
    }
    std::string temporary = path + ".new";
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        log::line("Cannot write " + temporary + ": ", std::strerror(errno));
        return false;
    }
    ::fchmod(fd, 0600); // an older temporary file may have had another mode
    bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && ::fsync(fd) == 0;
    ::close(fd);
    if (!written || ::rename(temporary.c_str(), path.c_str()) != 0) {
        log::line("Cannot write " + path + ": ", std::strerror(errno));
        ::unlink(temporary.c_str());
        return false;
    }
    return true;
}

} // namespace orbweave
