#pragma once

// What every desktop-app test program stands on: one application on the offscreen
// platform (the event bus delivers through its loop, dialogs need widgets), and a
// private session bus with an unlocked keyring, so no test reaches the desktop's own.

#include "core/obs/child_process.hpp"
#ifdef ORBWEAVE_APP_PROGRAM
#include "app/app_delegate.hpp"
#include "app/event_bus.hpp"
#include "app/preferences.hpp"
#include "app/secret_keeper.hpp"
#include "tests/support/client_harness.hpp"
#include "tests/support/processes.hpp"
#endif
#include "tests/support/eventually.hpp"
#include "tests/support/keyring.hpp"
#include "tests/support/session_bus.hpp"
#include "tests/support/temp_dir.hpp"
#include "tools/service-sim/service_sim.hpp"

#include <QApplication>
#include <QElapsedTimer>
#include <QTimer>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orbweave::test {

class qt_environment : public ::testing::Environment {
public:
    void SetUp() override
    {
        bus_ = std::make_unique<session_bus>();
        keyring_ = std::make_unique<keyring>(bus_->address());
        qputenv("DBUS_SESSION_BUS_ADDRESS", QByteArray::fromStdString(bus_->address()));
        qputenv("QT_QPA_PLATFORM", "offscreen");
        static int argc = 1;
        static char name[] = "orbweave-app-test";
        static char* argv[] = {name, nullptr};
        application_ = std::make_unique<QApplication>(argc, argv);
    }
    void TearDown() override
    {
        application_.reset();
        keyring_.reset();
        bus_.reset();
    }
    const std::string& bus_address() const { return bus_->address(); }

private:
    std::unique_ptr<session_bus> bus_;
    std::unique_ptr<keyring> keyring_;
    std::unique_ptr<QApplication> application_;
};

/// Runs this thread's event loop until condition holds or the time is up.
inline bool pump_until(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = std::chrono::seconds(5))
{
    auto pumped = [&] {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        return condition();
    };
    return condition() || eventually(pumped, timeout, std::chrono::milliseconds(0));
}

/// The payload of the reply carrying state, this thread's event loop running meanwhile;
/// null when none came in time.
inline Json pumped_reply(sim::service_sim& service, const std::optional<std::string>& state,
                         std::chrono::milliseconds timeout)
{
    std::optional<sim::received> reply;
    pump_until([&] { return state && (reply = service.wait_for_reply(*state, std::chrono::milliseconds(0))); },
               timeout);
    return reply ? reply->message["payload"] : Json();
}

/// Lists the screens and streams the first of them to server under the first key, the
/// second under the second... each answered "Success", the event loop running meanwhile.
/// Returns the screens listed; an empty array, with the failure reported, otherwise.
inline Json stream_screens(sim::service_sim& service, const std::vector<std::string>& keys,
                           const std::string& server, std::chrono::milliseconds timeout)
{
    Json screens = pumped_reply(service, service.list("screen"), timeout)["results"];
    for (std::size_t i = 0; i < keys.size(); ++i) {
        std::string id = screens.size() > i ? screens[i].value("id", "") : "";
        Json reply = pumped_reply(service, service.activate(sim::activation::of(id, server, keys[i])), timeout);
        if (reply != Json({{"status", "Success"}})) {
            ADD_FAILURE() << "activating screen " << i << " under " << keys[i] << ": " << reply;
            return Json::array();
        }
    }
    return screens;
}

#ifdef ORBWEAVE_APP_PROGRAM
/// The orbweave program as a user starts it, signing in to service (whose CA is written
/// to home) with its settings and state in home, on the offscreen platform and in the
/// language LANG names; environment adds to that and overrides it.
inline obs::child_process::options app_program(const sim::service_sim& service, const temp_dir& home,
                                               std::vector<std::pair<std::string, std::string>> environment)
{
    service.identity().write(home.path());
    auto options = test::command({ORBWEAVE_APP_PROGRAM, "--service", service.url(), "--ca-file", home.file("ca.pem"),
                                  "--bitrate", "1500"});
    options.environment = std::move(environment);
    for (std::pair<std::string, std::string> usual : {std::pair<std::string, std::string>{"QT_QPA_PLATFORM", "offscreen"},
                                                      {"XDG_CONFIG_HOME", home.path().string()},
                                                      {"XDG_STATE_HOME", home.path().string()}})
        if (std::none_of(options.environment.begin(), options.environment.end(),
                         [&](const auto& given) { return given.first == usual.first; }))
            options.environment.push_back(usual);
    options.unset_environment = {"XDG_CURRENT_DESKTOP", "DESKTOP_SESSION", "LC_ALL", "LC_MESSAGES", "LANGUAGE"};
    return options;
}

/// The app's non-visual half as the program wires it, against the simulator: preferences
/// in a private folder, the secret keeper, the event bus and the delegate's settings.
struct app_wiring {
    app_wiring() : stored(QString::fromStdString(dir.file("orbweave.conf"))), secrets(stored)
    {
        service.identity().write(dir.path());
        settings.service_url = service.url();
        settings.client = fast_client_options(dir.file("ca.pem"));
    }
    /// Loads the stored secret, as the program does before it starts the delegate.
    bool load_secrets()
    {
        bool loaded = false;
        secrets.load([&] { loaded = true; });
        return pump_until([&] { return loaded; });
    }

    sim::service_sim service;
    temp_dir dir;
    app::event_bus bus;
    app::preferences stored;
    app::secret_keeper secrets;
    app::app_delegate::settings settings;
};
#endif

/// Watches this thread's event loop: a timer due every 10 ms notes the longest gap between
/// its runs, that is how long a queued call would have waited at worst.
class loop_watchdog {
public:
    loop_watchdog()
    {
        timer_.setInterval(10);
        QObject::connect(&timer_, &QTimer::timeout, [this] {
            longest_ = std::max(longest_, clock_.restart());
        });
        restart();
    }
    /// Forgets what was seen so far.
    void restart()
    {
        longest_ = 0;
        clock_.start();
        timer_.start();
    }
    /// The longest gap since the last restart, the running one included, in ms.
    qint64 longest() const { return std::max(longest_, clock_.elapsed()); }

private:
    QTimer timer_;
    QElapsedTimer clock_;
    qint64 longest_ = 0;
};

} // namespace orbweave::test
