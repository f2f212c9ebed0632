#pragma once

// An unlocked Secret Service keyring (gnome-keyring-daemon, secrets only) on a given
// session bus, with its keyrings in a private folder; gone with the test.

#include "core/obs/child_process.hpp"
#include "tests/support/temp_dir.hpp"

#include <memory>
#include <string>

namespace orbweave::test {

class keyring {
public:
    /// Starts the daemon on bus_address and returns once org.freedesktop.secrets answers there.
    explicit keyring(const std::string& bus_address);
    ~keyring();
    keyring(const keyring&) = delete;
    keyring& operator=(const keyring&) = delete;

private:
    temp_dir home_;
    std::unique_ptr<obs::child_process> daemon_;
};

} // namespace orbweave::test
