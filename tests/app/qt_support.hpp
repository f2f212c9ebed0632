#pragma once

// What every desktop-app test program stands on: one application on the offscreen
// platform (the event bus delivers through its loop, dialogs need widgets), and a
// private session bus with an unlocked keyring, so no test reaches the desktop's own.

#include "tests/support/keyring.hpp"
#include "tests/support/session_bus.hpp"

#include <QApplication>
#include <QElapsedTimer>
#include <QTimer>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>

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
    auto until = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= until)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    return true;
}

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
