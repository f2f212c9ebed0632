#include "tests/support/rtmp_ingest.hpp"

#include "core/json.hpp"
#include "tests/support/eventually.hpp"
#include "tests/support/line_reader.hpp"
#include "tests/support/processes.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace orbweave::test {

namespace {

using namespace std::chrono_literals;
using clock = std::chrono::steady_clock;

// How often the status page is read while waiting for a change (it has no push).
constexpr auto status_poll_interval = 50ms;

sockaddr_in loopback(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

double rational(const std::string& text)
{
    auto slash = text.find('/');
    try {
        if (slash == std::string::npos)
            return text.empty() ? 0 : std::stod(text);
        double denominator = std::stod(text.substr(slash + 1));
        return denominator == 0 ? 0 : std::stod(text.substr(0, slash)) / denominator;
    } catch (const std::exception&) {
        return 0;
    }
}

std::string program_path(const std::string& name, const std::string& usual)
{
    if (::access(usual.c_str(), X_OK) == 0)
        return usual;
    std::string found = obs::find_program(name);
    return found.empty() ? name : found;
}

/// ffprobe's account of what input (its last argument, after options) holds.
probe_result probe(std::vector<std::string> input, std::chrono::milliseconds timeout)
{
    std::vector<std::string> argv{program_path("ffprobe", "/usr/bin/ffprobe"), "-v", "error", "-show_streams",
                                  "-show_format", "-of", "json"};
    argv.insert(argv.end(), input.begin(), input.end());
    int code = 0;
    std::string errors;
    probe_result result = parse_probe(run_program(argv, timeout, &code, &errors));
    if (code != 0)
        result.error = code < 0 ? "ffprobe timed out" : "ffprobe failed: " + errors;
    return result;
}

// The ingest: records every stream, and reports who publishes on http://.../stat.
constexpr const char* nginx_conf = R"(load_module /usr/lib/nginx/modules/ngx_rtmp_module.so;
daemon off;
master_process off;
worker_processes 1;
pid {dir}/nginx.pid;
error_log {dir}/error.log info;
events { worker_connections 256; }
rtmp {
  server {
    listen 127.0.0.1:{rtmp};
    application live { live on; record all; record_path {dir}/records; record_unique off; }
  }
}
http {
  access_log {dir}/access.log;
  client_body_temp_path {dir}/temp/body;
  proxy_temp_path {dir}/temp/proxy;
  fastcgi_temp_path {dir}/temp/fastcgi;
  uwsgi_temp_path {dir}/temp/uwsgi;
  scgi_temp_path {dir}/temp/scgi;
  server { listen 127.0.0.1:{http}; location /stat { rtmp_stat all; } }
}
)";

} // namespace

const probed_stream* probe_result::first(const std::string& codec_type) const
{
    for (const auto& stream : streams)
        if (stream.codec_type == codec_type)
            return &stream;
    return nullptr;
}

probe_result parse_probe(const std::string& ffprobe_json)
{
    probe_result result;
    Json parsed = json::parse(ffprobe_json);
    if (!parsed.is_object()) {
        result.error = "ffprobe gave no JSON";
        return result;
    }
    const Json& streams = json::at(parsed, {"streams"});
    if (streams.is_array()) {
        for (const auto& stream : streams) {
            probed_stream probed;
            probed.codec_type = json::string_at(stream, {"codec_type"});
            probed.codec_name = json::string_at(stream, {"codec_name"});
            probed.width = json::int_at(stream, {"width"});
            probed.height = json::int_at(stream, {"height"});
            probed.frame_rate = rational(json::string_at(stream, {"r_frame_rate"}));
            probed.sample_rate = std::atoi(json::string_at(stream, {"sample_rate"}).c_str());
            probed.channels = json::int_at(stream, {"channels"});
            result.streams.push_back(std::move(probed));
        }
    }
    result.duration = rational(json::string_at(parsed, {"format", "duration"}));
    return result;
}

int listen_on_loopback(int& port, int backlog, int receive_buffer)
{
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    if (fd >= 0 && receive_buffer > 0)
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(fd, backlog) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        if (fd >= 0)
            ::close(fd);
        throw std::runtime_error("cannot listen on loopback");
    }
    port = ntohs(address.sin_port);
    return fd;
}

int connect_loopback(int port)
{
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(port);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

int free_loopback_port()
{
    int port = 0;
    ::close(listen_on_loopback(port, 1));
    return port;
}

silent_server::silent_server()
{
    listener_ = listen_on_loopback(port_, 8);
}

silent_server::~silent_server()
{
    for (int fd : accepted_)
        ::close(fd);
    ::close(listener_);
}

std::string silent_server::url() const
{
    return "rtmp://127.0.0.1:" + std::to_string(port_) + "/live";
}

bool silent_server::wait_for_client(std::chrono::milliseconds timeout)
{
    pollfd entry{listener_, POLLIN, 0};
    if (::poll(&entry, 1, static_cast<int>(timeout.count())) <= 0)
        return false;
    int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0)
        return false;
    accepted_.push_back(fd); // held open, and never answered
    return true;
}

rtmp_ingest::rtmp_ingest(int rtmp_port) : directory_("orbweave-ingest")
{
    namespace fs = std::filesystem;
    fs::path root = directory_.path();
    fs::create_directories(root / "records");
    fs::create_directories(root / "temp");
    rtmp_port_ = rtmp_port > 0 ? rtmp_port : free_loopback_port();
    http_port_ = free_loopback_port();
    while (http_port_ == rtmp_port_)
        http_port_ = free_loopback_port();

    std::string dir = root.string();
    std::string config = nginx_conf;
    for (const auto& [name, value] : {std::pair<std::string, std::string>{"{dir}", dir},
                                      {"{rtmp}", std::to_string(rtmp_port_)}, {"{http}", std::to_string(http_port_)}})
        for (auto at = config.find(name); at != std::string::npos; at = config.find(name, at + value.size()))
            config.replace(at, name.size(), value);
    std::ofstream(root / "nginx.conf") << config;

    auto options = test::command({program_path("nginx", "/usr/sbin/nginx"), "-p", dir, "-c", dir + "/nginx.conf", "-e",
                                  dir + "/error.log"});
    options.quiet = true;
    process_ = std::make_unique<obs::child_process>(options);

    // nginx has no readiness notice of its own: poll both ports, bounded.
    auto answers = [](int port) {
        int fd = connect_loopback(port);
        return fd >= 0 && ::close(fd) == 0;
    };
    auto ready = [&] { return answers(rtmp_port_) && answers(http_port_); };
    bool ended = false;
    if (!eventually([&] { return (ended = process_->wait_for(0ms).has_value()) || ready(); }, 10s) || ended) {
        std::string log = error_log();
        process_.reset();
        throw std::runtime_error("nginx did not start: " + log);
    }
}

rtmp_ingest::~rtmp_ingest()
{
    if (process_) {
        process_->kill(SIGTERM);
        if (!process_->wait_for(3s))
            process_->kill_and_wait();
    }
}

std::string rtmp_ingest::url() const
{
    return "rtmp://127.0.0.1:" + std::to_string(rtmp_port_) + "/live";
}

std::string rtmp_ingest::stream_url(const std::string& key) const
{
    return url() + "/" + key;
}

std::optional<std::string> rtmp_ingest::statistics() const
{
    int fd = connect_loopback(http_port_);
    if (fd < 0)
        return std::nullopt;
    std::string request = "GET /stat HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n";
    bool sent = ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size());
    std::string response;
    bool complete = sent && read_all(fd, response, 2s);
    ::close(fd);
    if (!complete || response.compare(0, 12, "HTTP/1.1 200") != 0)
        return std::nullopt;
    auto body = response.find("\r\n\r\n");
    return body == std::string::npos ? std::string() : response.substr(body + 4);
}

std::optional<std::string> rtmp_ingest::publisher(const std::string& key) const
{
    auto xml = statistics();
    if (!xml)
        return std::nullopt;
    // <stream><name>KEY</name>...<client><id>N</id>...<publishing/>...</client>...</stream>
    std::string name = "<name>" + key + "</name>";
    std::size_t at = 0;
    while ((at = xml->find("<stream>", at)) != std::string::npos) {
        std::size_t end = xml->find("</stream>", at);
        if (end == std::string::npos)
            return std::nullopt;
        std::string stream = xml->substr(at, end - at);
        std::size_t publishing = stream.find("<publishing/>");
        if (stream.find(name) != std::string::npos && publishing != std::string::npos) {
            std::size_t client = stream.rfind("<client>", publishing);
            std::size_t id = client == std::string::npos ? client : stream.find("<id>", client);
            std::size_t id_end = id == std::string::npos ? id : stream.find("</id>", id);
            if (id_end == std::string::npos)
                return std::string();
            return stream.substr(id + 4, id_end - id - 4);
        }
        at = end;
    }
    return std::nullopt;
}

bool rtmp_ingest::publishing(const std::string& key) const
{
    return publisher(key).has_value();
}

bool rtmp_ingest::wait_for_publishing(const std::string& key, std::chrono::milliseconds timeout) const
{
    return eventually([&] { return publishing(key); }, timeout, status_poll_interval);
}

bool rtmp_ingest::wait_until_not_publishing(const std::string& key, std::chrono::milliseconds timeout) const
{
    return eventually([&] { return !publishing(key); }, timeout, status_poll_interval);
}

probe_result rtmp_ingest::probe_live(const std::string& key, std::chrono::milliseconds timeout) const
{
    return probe({"-rw_timeout", std::to_string(timeout.count() * 1000), stream_url(key)}, timeout);
}

std::filesystem::path rtmp_ingest::recording(const std::string& key) const
{
    return std::filesystem::path(directory_.path()) / "records" / (key + ".flv");
}

probe_result rtmp_ingest::probe_recording(const std::string& key, std::chrono::milliseconds timeout) const
{
    return probe({recording(key).string()}, timeout);
}

namespace {
/// One frame of input (ffmpeg's arguments before the output), scaled to width x height, as
/// grey or RGB bytes; empty when it cannot be decoded within timeout.
std::vector<std::uint8_t> decoded_frame(std::vector<std::string> input, int width, int height,
                                        std::chrono::milliseconds timeout, bool colour)
{
    std::vector<std::string> argv{program_path("ffmpeg", "/usr/bin/ffmpeg"), "-nostdin", "-v", "error"};
    argv.insert(argv.end(), input.begin(), input.end());
    argv.insert(argv.end(), {"-frames:v", "1", "-vf",
                             "scale=" + std::to_string(width) + ":" + std::to_string(height) +
                                 ",format=" + (colour ? "rgb24" : "gray"),
                             "-f", "rawvideo", "-"});
    int code = 0;
    std::string output = run_program(argv, timeout, &code);
    std::size_t size = static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * (colour ? 3 : 1);
    if (code != 0 || output.size() != size)
        return {};
    return std::vector<std::uint8_t>(output.begin(), output.end());
}
} // namespace

std::vector<std::uint8_t> rtmp_ingest::recording_frame(const std::string& key, double at, int width, int height,
                                                       std::chrono::milliseconds timeout, bool colour) const
{
    return decoded_frame({"-ss", std::to_string(at), "-i", recording(key).string()}, width, height, timeout, colour);
}

std::vector<std::uint8_t> rtmp_ingest::last_frame(const std::string& key) const
{
    return recording_frame(key, std::max(0.0, probe_recording(key).duration - 0.5), 64, 36, 20s, true);
}

std::vector<std::uint8_t> rtmp_ingest::live_frame(const std::string& key, int width, int height,
                                                  std::chrono::milliseconds timeout) const
{
    return decoded_frame({"-i", stream_url(key), "-an"}, width, height, timeout, true);
}

colour colour_at(const std::vector<std::uint8_t>& frame, int x, int y)
{
    if (frame.size() != 64u * 36u * 3u)
        return {-1, -1, -1};
    std::size_t at = (static_cast<std::size_t>(y) * 64 + static_cast<std::size_t>(x)) * 3;
    return {frame[at], frame[at + 1], frame[at + 2]};
}

bool near(const colour& seen, const colour& expected, int tolerance)
{
    for (int channel = 0; channel < 3; ++channel)
        if (std::abs(seen[channel] - expected[channel]) > tolerance)
            return false;
    return true;
}

std::string describe(const colour& seen)
{
    return std::to_string(seen[0]) + "," + std::to_string(seen[1]) + "," + std::to_string(seen[2]);
}

std::string describe(const std::vector<std::uint8_t>& frame)
{
    std::string text;
    for (int y : {1, 9, 18, 26, 34}) {
        text += "\n ";
        for (int x : {1, 8, 16, 24, 32, 40, 48, 56, 62})
            text += " " + describe(colour_at(frame, x, y));
    }
    return text;
}

std::string rtmp_ingest::error_log() const
{
    return file_text(std::filesystem::path(directory_.path()) / "error.log");
}

live_loudness::live_loudness(const rtmp_ingest& ingest, const std::string& key)
{
    obs::child_process::options options;
    // astats measures each AAC frame (1024 samples), summed up over windows of four.
    options.argv = {"ffmpeg", "-hide_banner", "-nostats", "-loglevel", "error", "-fflags", "nobuffer", "-i",
                    ingest.stream_url(key), "-vn", "-af",
                    "astats=metadata=1:reset=4,"
                    "ametadata=mode=print:key=lavfi.astats.Overall.RMS_level:file=-:direct=1",
                    "-f", "null", "-"};
    options.pipe_stdout = true;
    process_ = std::make_unique<obs::child_process>(options);
    lines_ = std::make_unique<line_reader>(process_->stdout_fd());
}

live_loudness::~live_loudness() = default;

std::optional<double> live_loudness::wait_for(const std::function<bool(double)>& accept,
                                              std::chrono::milliseconds timeout, int run)
{
    static const std::string prefix = "lavfi.astats.Overall.RMS_level=";
    int in_a_row = 0;
    double level = 0;
    auto enough = [&](const std::string& line) {
        if (line.rfind(prefix, 0) != 0)
            return false;
        level = std::strtod(line.c_str() + prefix.size(), nullptr);
        in_a_row = accept(level) ? in_a_row + 1 : 0;
        return in_a_row >= run;
    };
    return lines_->wait_for(enough, timeout) ? std::optional<double>(level) : std::nullopt;
}

std::optional<double> live_loudness::wait_for_sound(double decibels, std::chrono::milliseconds timeout)
{
    return wait_for([decibels](double level) { return level >= decibels; }, timeout);
}

std::optional<double> live_loudness::wait_for_silence(double decibels, std::chrono::milliseconds timeout)
{
    constexpr int frames_a_second = 44100 / 1024 + 1;
    return wait_for([decibels](double level) { return level < decibels; }, timeout, frames_a_second);
}

} // namespace orbweave::test
