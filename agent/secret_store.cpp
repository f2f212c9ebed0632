#include "agent/secret_store.hpp"

#include "core/log.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace orbweave::agent {

namespace {

bool make_private_dir(const std::string& dir)
{
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec) {
        log::line("Cannot create " + dir + ": ", ec.message());
        return false;
    }
    ::chmod(dir.c_str(), 0700);
    return true;
}

} // namespace

secret_store::secret_store(std::string dir)
    : dir_(std::move(dir))
{
}

std::string secret_store::path() const
{
    return dir_ + "/secret";
}

std::string secret_store::load() const
{
    std::ifstream in(path());
    std::string secret;
    std::getline(in, secret);
    return secret;
}

bool secret_store::save(const std::string& secret) const
{
    if (!make_private_dir(dir_))
        return false;
    std::string temporary = path() + ".new";
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        log::line("Cannot store the secret in " + temporary + ": ", std::strerror(errno));
        return false;
    }
    ::fchmod(fd, 0600);
    std::string text = secret + "\n";
    bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && ::fsync(fd) == 0;
    ::close(fd);
    if (!written || ::rename(temporary.c_str(), path().c_str()) != 0) {
        log::line("Cannot store the secret in " + path() + ": ", std::strerror(errno));
        ::unlink(temporary.c_str());
        return false;
    }
    return true;
}

void secret_store::erase() const
{
    ::unlink(path().c_str());
}

} // namespace orbweave::agent
