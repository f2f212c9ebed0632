#include "core/activity_log.hpp"

#include "core/log.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <fstream>
#include <utility>

namespace orbweave {

namespace {

std::string folder_of(const std::string& path)
{
    auto slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

/// Creates the folder and its parents (mode 0700) where missing.
void make_folders(const std::string& folder)
{
    if (folder.empty())
        return;
    for (std::size_t at = 1; at != std::string::npos; at = folder.find('/', at + 1))
        ::mkdir(folder.substr(0, at).c_str(), 0700);
    ::mkdir(folder.c_str(), 0700);
}

/// Reads the lines of one file that are JSON objects (a torn or foreign line is skipped).
void read_objects(const std::string& path, std::deque<Json>& into, std::size_t keep)
{
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        Json object = json::parse(line);
        if (!object.is_object())
            continue;
        into.push_back(std::move(object));
        if (into.size() > keep)
            into.pop_front();
    }
}

} // namespace

Json activity_event::to_json(std::chrono::system_clock::time_point at) const
{
    Json line = Json::object();
    line["time"] = activity_log::iso8601(at);
    line["event"] = event;
    if (kind != callback::source_type::none)
        line["kind"] = callback::source_type::name(kind);
    auto optional = [&line](const char* key, const std::string& value) {
        if (!value.empty())
            line[key] = value;
    };
    optional("source", source);
    optional("ingest", ingest);
    optional("decided", decided);
    optional("outcome", outcome);
    optional("reason", reason);
    if (duration)
        line["duration"] = std::round(*duration * 10) / 10; // seconds, to a tenth
    return line;
}

activity_log::activity_log(std::string path, std::uintmax_t rotate_bytes)
    : path_(std::move(path)), rotate_bytes_(rotate_bytes)
{
}

std::string activity_log::iso8601(std::chrono::system_clock::time_point at)
{
    using namespace std::chrono;
    std::time_t seconds = system_clock::to_time_t(at);
    auto millis = duration_cast<milliseconds>(at.time_since_epoch()).count() % 1000;
    if (millis < 0)
        millis += 1000;
    std::tm local{};
    ::localtime_r(&seconds, &local);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &local);
    long offset = local.tm_gmtoff / 60; // minutes east of UTC
    char sign = offset < 0 ? '-' : '+';
    offset = std::labs(offset);
    char text[64];
    std::snprintf(text, sizeof text, "%s.%03d%c%02ld:%02ld", date, static_cast<int>(millis), sign, offset / 60,
                  offset % 60);
    return text;
}

std::string activity_log::ingest_of(const std::string& url)
{
    auto scheme_end = url.find("://");
    if (scheme_end == std::string::npos)
        return {};
    std::string scheme = url.substr(0, scheme_end);
    std::string rest = url.substr(scheme_end + 3);
    rest = rest.substr(0, rest.find_first_of("/?#"));
    // A user and password before the host are credentials.
    auto at = rest.rfind('@');
    if (at != std::string::npos)
        rest = rest.substr(at + 1);
    return rest.empty() ? std::string() : scheme + "://" + rest;
}

void activity_log::record(const activity_event& event)
{
    std::string line = json::dump(event.to_json(std::chrono::system_clock::now())) + "\n";
    std::lock_guard<std::mutex> lock(mutex_);
    append_line_locked(line);
}

void activity_log::append_line_locked(const std::string& line)
{
    struct stat status {};
    if (::stat(path_.c_str(), &status) == 0 && static_cast<std::uintmax_t>(status.st_size) + line.size() > rotate_bytes_ &&
        status.st_size > 0) {
        if (::rename(path_.c_str(), (path_ + ".1").c_str()) != 0)
            log::line("Could not rotate the activity history " + path_ + ": ", std::strerror(errno));
    }
    make_folders(folder_of(path_));
    int fd = ::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        log::line("Could not write the activity history " + path_ + ": ", std::strerror(errno));
        return;
    }
    // A file made by someone else's umask or an older version is narrowed too.
    ::fchmod(fd, 0600);
    const char* data = line.data();
    std::size_t left = line.size();
    while (left > 0) {
        ssize_t written = ::write(fd, data, left);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0) {
            log::line("Could not write the activity history " + path_ + ": ", std::strerror(errno));
            break;
        }
        data += written;
        left -= static_cast<std::size_t>(written);
    }
    ::close(fd);
}

std::vector<Json> activity_log::recent(std::size_t count) const
{
    std::deque<Json> last;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        read_objects(path_ + ".1", last, count);
        read_objects(path_, last, count);
    }
    return std::vector<Json>(last.rbegin(), last.rend());
}

void activity_log::clear()
{
    std::lock_guard<std::mutex> lock(mutex_);
    ::unlink((path_ + ".1").c_str());
    ::unlink(path_.c_str());
}

activity_recorder::activity_recorder(std::shared_ptr<activity_log> log, listener tell)
    : log_(std::move(log)), tell_(std::move(tell))
{
}

void activity_recorder::record(const activity_event& event)
{
    if (log_)
        log_->record(event);
    if (tell_)
        tell_(event);
}

void activity_recorder::started(const std::string& id, activity_event event)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        running_[id] = running{event, std::chrono::steady_clock::now()};
    }
    record(event);
}

void activity_recorder::stopped(const std::string& id, const std::string& event, const std::string& reason,
                                const std::string& decided)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto stream = running_.find(id);
    if (stream != running_.end())
        end_locked(stream, event, reason, decided);
}

void activity_recorder::stopped_all(const std::string& event, const std::string& reason, const std::string& decided)
{
    std::lock_guard<std::mutex> lock(mutex_);
    while (!running_.empty())
        end_locked(running_.begin(), event, reason, decided);
}

void activity_recorder::end_locked(std::map<std::string, running>::iterator stream, const std::string& event,
                                   const std::string& reason, const std::string& decided)
{
    activity_event end;
    end.event = event;
    end.kind = stream->second.started.kind;
    end.source = stream->second.started.source;
    end.ingest = stream->second.started.ingest;
    end.decided = decided;
    end.outcome = "stopped";
    end.reason = reason;
    end.duration = std::chrono::duration<double>(std::chrono::steady_clock::now() - stream->second.since).count();
    running_.erase(stream);
    // The recorder's lock keeps ends in order; the listener only queues (the client posts it).
    record(end);
}

} // namespace orbweave
