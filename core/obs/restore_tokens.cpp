#include "core/obs/restore_tokens.hpp"

#include "core/json.hpp"
#include "core/log.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace orbweave::obs {

namespace {

Json read_all(const std::string& path)
{
    std::ifstream in(path);
    if (!in)
        return Json::object();
    std::stringstream text;
    text << in.rdbuf();
    Json value = json::parse(text.str());
    return value.is_object() ? value : Json::object();
}

bool write_private(const std::string& path, const std::string& text)
{
    std::filesystem::path target(path);
    std::error_code error;
    std::filesystem::create_directories(target.parent_path(), error);
    std::string temporary = path + ".new";
    ::unlink(temporary.c_str());
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0)
        return false;
    bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    written = ::fsync(fd) == 0 && written;
    ::close(fd);
    if (!written || ::rename(temporary.c_str(), path.c_str()) != 0) {
        ::unlink(temporary.c_str());
        return false;
    }
    return true;
}

} // namespace

restore_tokens::restore_tokens(std::string path) : path_(std::move(path)) {}

std::string restore_tokens::get(const std::string& id) const
{
    if (path_.empty())
        return {};
    std::lock_guard<std::mutex> lock(mutex_);
    return json::string_at(read_all(path_), {id});
}

void restore_tokens::put(const std::string& id, const std::string& token)
{
    if (path_.empty())
        return;
    std::lock_guard<std::mutex> lock(mutex_);
    Json all = read_all(path_);
    if (token.empty())
        all.erase(id);
    else
        all[id] = token;
    if (!write_private(path_, json::dump(all)))
        log::line("Cannot keep the screen's restore token in " + path_ + ": ", std::strerror(errno));
}

} // namespace orbweave::obs
