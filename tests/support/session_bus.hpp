#pragma once

// A private D-Bus session bus for tests: a dbus-daemon of our own, gone with the test.

#include "core/obs/child_process.hpp"

#include <memory>
#include <string>

namespace orbweave::test {

class session_bus {
public:
    /// Starts dbus-daemon and waits for its address; throws when it does not come up.
    session_bus();
    ~session_bus();
    session_bus(const session_bus&) = delete;
    session_bus& operator=(const session_bus&) = delete;

    /// "unix:path=...,guid=...": what DBUS_SESSION_BUS_ADDRESS would hold.
    const std::string& address() const { return address_; }

private:
    std::unique_ptr<obs::child_process> daemon_;
    std::string address_;
};

/// Whether a program owns name on the bus at bus_address.
bool has_owner(const std::string& bus_address, const std::string& name);

} // namespace orbweave::test
