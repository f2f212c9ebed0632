#include "tests/support/keyring.hpp"

#include "tests/support/eventually.hpp"
#include "tests/support/processes.hpp"
#include "tests/support/session_bus.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

namespace orbweave::test {

keyring::keyring(const std::string& bus_address) : home_("orbweave-keyring")
{
    std::filesystem::create_directories(home_.path() / "data");
    std::filesystem::create_directories(home_.path() / "run");
    ::chmod((home_.path() / "run").c_str(), 0700);
    auto options = test::command({"gnome-keyring-daemon", "--foreground", "--components=secrets", "--unlock"});
    options.environment = {{"DBUS_SESSION_BUS_ADDRESS", bus_address},
                           {"HOME", home_.path().string()},
                           {"XDG_DATA_HOME", (home_.path() / "data").string()},
                           {"XDG_RUNTIME_DIR", (home_.path() / "run").string()}};
    options.pipe_stdin = true;
    options.quiet = true;
    daemon_ = std::make_unique<obs::child_process>(options);
    // --unlock reads the login keyring's password from standard input.
    const char password[] = "orbweave-test";
    if (::write(daemon_->stdin_fd(), password, sizeof password - 1) < 0)
        throw std::runtime_error("cannot hand gnome-keyring-daemon its password");
    daemon_->close_stdin();
    bool up = eventually([&] { return has_owner(bus_address, "org.freedesktop.secrets"); }, std::chrono::seconds(10),
                         std::chrono::milliseconds(50));
    if (!up)
        throw std::runtime_error("gnome-keyring-daemon did not come up");
}

keyring::~keyring() = default;

} // namespace orbweave::test
