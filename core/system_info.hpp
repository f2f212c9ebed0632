#pragma once

#include "core/version.hpp"

#include <string>

namespace orbweave {

/// Facts about this machine that "identify" reports.
struct system_info {
    /// The operating-system family the service expects: always "Mac".
    static std::string os_name();
    /// The pretty host name when one is set, else the kernel's host name.
    static std::string machine_name();
    /// "OSX major.minor.patch" filled from the running kernel's release.
    static std::string os_version();
    /// A stable machine serial: the systemd or D-Bus machine id, else "".
    static std::string os_uuid();
    /// BLAKE2b of os_uuid() then os_name() + machine_name(), as 64 hex digits.
    static std::string fingerprint();
};

/// BLAKE2b (32 bytes, no key) of this machine's os_uuid() followed by text, as
/// 64 lower-case hex digits: stable on one machine, different between machines.
std::string create_unique_hash(const std::string& text);

namespace detail {
/// create_unique_hash with an explicit machine serial.
std::string unique_hash(const std::string& serial, const std::string& text);
/// "OSX a.b.c" from a kernel release such as "6.1.0-18-amd64"; missing numbers read 0.
std::string os_version_from_release(const std::string& release);
/// PRETTY_HOSTNAME from the text of /etc/machine-info, unquoted; "" when absent.
std::string pretty_hostname_from(const std::string& machine_info);
} // namespace detail

} // namespace orbweave
