#pragma once

// "Check this computer" for the desktop app: the common checks (core/check) plus what
// only the app relies on: a tray host, a notification server that can ask (actions),
// the keyring, the autostart folder. Each D-Bus question is bounded (2 s); nothing is
// written, registered or shown.

#include "core/check/checks.hpp"

#include <QDBusConnection>
#include <QString>

#include <vector>

namespace orbweave::app {

/// tray, notifications, keyring, autostart. Safe on any thread (blocking D-Bus calls
/// with a bound): the window runs it off the GUI thread.
std::vector<check::item> desktop_app_checks(const QDBusConnection& bus, const QString& autostart_path);

/// Every check, in order: the common ones, then the app's; timed.
check::report run_desktop_check(const check::settings& settings, const QDBusConnection& bus,
                                const QString& autostart_path);

/// orbweave --check [--json]: prints the report and returns the exit status. Needs a
/// QCoreApplication.
int print_desktop_check(const check::settings& settings, bool json);

} // namespace orbweave::app
