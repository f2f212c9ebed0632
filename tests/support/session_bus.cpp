#include "tests/support/session_bus.hpp"

#include "tests/support/line_reader.hpp"
#include "tests/support/processes.hpp"

#include <stdexcept>

namespace orbweave::test {

session_bus::session_bus()
{
    auto options = test::command({"dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address"});
    options.pipe_stdout = true;
    daemon_ = std::make_unique<obs::child_process>(options);
    line_reader output(daemon_->stdout_fd());
    auto address = output.next(std::chrono::seconds(10));
    if (!address || address->empty())
        throw std::runtime_error("dbus-daemon did not say where it listens");
    address_ = *address;
}

session_bus::~session_bus() = default;

bool has_owner(const std::string& bus_address, const std::string& name)
{
    return run_program({"dbus-send", "--bus=" + bus_address, "--print-reply", "--dest=org.freedesktop.DBus",
                        "/org/freedesktop/DBus", "org.freedesktop.DBus.NameHasOwner", "string:" + name},
                       std::chrono::seconds(5))
               .find("boolean true") != std::string::npos;
}

} // namespace orbweave::test
