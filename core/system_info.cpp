#include "core/system_info.hpp"

#include <sodium.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace orbweave {

namespace {

std::string read_first_line(const char* path)
{
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t'))
        line.pop_back();
    return line;
}

std::string read_file(const char* path)
{
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

} // namespace

namespace detail {

std::string unique_hash(const std::string& serial, const std::string& text)
{
    // Idempotent; it fails only without a usable random source, which hashing does not need.
    [[maybe_unused]] static const int sodium_ready = sodium_init();
    std::array<unsigned char, 32> digest{};
    crypto_generichash_state state;
    crypto_generichash_init(&state, nullptr, 0, digest.size());
    crypto_generichash_update(&state, reinterpret_cast<const unsigned char*>(serial.data()), serial.size());
    crypto_generichash_update(&state, reinterpret_cast<const unsigned char*>(text.data()), text.size());
    crypto_generichash_final(&state, digest.data(), digest.size());
    std::array<char, 65> hex{};
    sodium_bin2hex(hex.data(), hex.size(), digest.data(), digest.size());
    return std::string(hex.data(), 64);
}

std::string os_version_from_release(const std::string& release)
{
    int numbers[3] = {0, 0, 0};
    std::sscanf(release.c_str(), "%d.%d.%d", &numbers[0], &numbers[1], &numbers[2]);
    char text[64];
    std::snprintf(text, sizeof text, "OSX %d.%d.%d", numbers[0], numbers[1], numbers[2]);
    return text;
}

std::string pretty_hostname_from(const std::string& machine_info)
{
    std::istringstream lines(machine_info);
    std::string line;
    std::string value;
    while (std::getline(lines, line)) {
        const std::string prefix = "PRETTY_HOSTNAME=";
        if (line.compare(0, prefix.size(), prefix) != 0)
            continue;
        value = line.substr(prefix.size());
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front())
            value = value.substr(1, value.size() - 2);
    }
    return value;
}

} // namespace detail

std::string system_info::os_name()
{
    return "Mac";
}

std::string system_info::machine_name()
{
    std::string pretty = detail::pretty_hostname_from(read_file("/etc/machine-info"));
    if (!pretty.empty())
        return pretty;
    char host[256] = {};
    if (gethostname(host, sizeof host - 1) != 0)
        return {};
    return host;
}

std::string system_info::os_version()
{
    utsname names{};
    if (uname(&names) != 0)
        return detail::os_version_from_release("");
    return detail::os_version_from_release(names.release);
}

std::string system_info::os_uuid()
{
    for (const char* path : {"/etc/machine-id", "/var/lib/dbus/machine-id"}) {
        std::string id = read_first_line(path);
        if (!id.empty())
            return id;
    }
    return {};
}

std::string system_info::fingerprint()
{
    return detail::unique_hash(os_uuid(), os_name() + machine_name());
}

std::string create_unique_hash(const std::string& text)
{
    static const std::string serial = system_info::os_uuid();
    return detail::unique_hash(serial, text);
}

} // namespace orbweave
