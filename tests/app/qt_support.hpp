#pragma once

// What every desktop-app test program stands on: one application on the offscreen
// platform (the event bus delivers through its loop, dialogs need widgets), and a
// private session bus with an unlocked keyring, so no test reaches the desktop's own.

#include "tests/support/keyring.hpp"
#include "tests/support/session_bus.hpp"

#include <QApplication>

#include <gtest/gtest.h>

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

} // namespace orbweave::test
