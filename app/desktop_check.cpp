#include "app/desktop_check.hpp"

#include "app/autostart.hpp"
#include "app/preferences.hpp"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QDir>
#include <QFileInfo>
#include <QSettings>
#include <QStringList>

#include <chrono>
#include <iostream>

namespace orbweave::app {

namespace {

using check::item;
using check::status;

/// Every D-Bus question's bound.
constexpr int call_limit_ms = 2000;

item make(const char* name, status level, const QString& found, const QString& fix = {}, Json details = Json::object())
{
    return item{name, level, found.toStdString(), fix.toStdString(), std::move(details)};
}

bool has_owner(const QDBusConnection& bus, const QString& name)
{
    QDBusMessage call = QDBusMessage::createMethodCall("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                       "org.freedesktop.DBus", "NameHasOwner");
    call << name;
    QDBusMessage reply = bus.call(call, QDBus::Block, call_limit_ms);
    return reply.type() == QDBusMessage::ReplyMessage && reply.arguments().value(0).toBool();
}

bool activatable(const QDBusConnection& bus, const QString& name)
{
    QDBusMessage call = QDBusMessage::createMethodCall("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                       "org.freedesktop.DBus", "ListActivatableNames");
    QDBusMessage reply = bus.call(call, QDBus::Block, call_limit_ms);
    return reply.type() == QDBusMessage::ReplyMessage && reply.arguments().value(0).toStringList().contains(name);
}

/// A property, or an invalid QVariant when it cannot be read within the bound.
QVariant property(const QDBusConnection& bus, const QString& service, const QString& path, const QString& interface,
                  const QString& name)
{
    QDBusMessage call =
        QDBusMessage::createMethodCall(service, path, "org.freedesktop.DBus.Properties", "Get");
    call << interface << name;
    QDBusMessage reply = bus.call(call, QDBus::Block, call_limit_ms);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return {};
    return reply.arguments().first().value<QDBusVariant>().variant();
}

item tray_check(const QDBusConnection& bus)
{
    const QString watcher = "org.kde.StatusNotifierWatcher";
    const QString fix = "run a panel with a StatusNotifier tray (KDE, LXQt, Xfce; on GNOME the AppIndicator "
                        "extension); without one the window carries the menu";
    if (!bus.isConnected())
        return make("tray", status::warn, "no session bus", fix);
    if (!has_owner(bus, watcher))
        return make("tray", status::warn, "no StatusNotifierWatcher on the session bus (an XEmbed tray may still "
                                          "show the icon)", fix);
    bool host = property(bus, watcher, "/StatusNotifierWatcher", watcher, "IsStatusNotifierHostRegistered").toBool();
    if (!host)
        return make("tray", status::warn, "a StatusNotifierWatcher runs but no tray host is registered", fix);
    return make("tray", status::ok, "a StatusNotifier tray host is registered");
}

item notification_check(const QDBusConnection& bus)
{
    const QString name = "org.freedesktop.Notifications";
    const QString fix = "run the desktop's notification server (or dunst, mako, xfce4-notifyd); until then "
                        "consent is asked in a dialog";
    if (!bus.isConnected())
        return make("notify", status::warn, "no session bus", fix);
    // An activatable server is not started here: the check changes nothing.
    if (!has_owner(bus, name)) {
        if (activatable(bus, name))
            return make("notify", status::ok, "a notification server starts with the first prompt");
        return make("notify", status::warn, "no notification server", fix);
    }
    QDBusMessage info = bus.call(
        QDBusMessage::createMethodCall(name, "/org/freedesktop/Notifications", name, "GetServerInformation"),
        QDBus::Block, call_limit_ms);
    QDBusMessage caps = bus.call(
        QDBusMessage::createMethodCall(name, "/org/freedesktop/Notifications", name, "GetCapabilities"),
        QDBus::Block, call_limit_ms);
    QString server = (info.arguments().value(0).toString() + " " + info.arguments().value(2).toString()).trimmed();
    if (server.isEmpty())
        server = "a notification server";
    QStringList capabilities = caps.arguments().value(0).toStringList();
    Json details{{"server", server.toStdString()}, {"capabilities", Json::array()}};
    for (const QString& capability : capabilities)
        details["capabilities"].push_back(capability.toStdString());
    if (!capabilities.contains("actions"))
        return make("notify", status::warn, server + " cannot show Allow and Deny (no \"actions\")",
                    "a notification server with actions; until then consent is asked in a dialog", details);
    return make("notify", status::ok, server + " with actions", {}, details);
}

item keyring_check(const QDBusConnection& bus)
{
    const QString name = "org.freedesktop.secrets";
    QString file = config_home() + "/orbweave/orbweave.conf";
    QString fallback = "the secret goes to " + file + " (mode 0600)";
    const QString fix = "install and unlock a Secret Service keyring (gnome-keyring, KWallet, KeePassXC)";
    if (!bus.isConnected())
        return make("keyring", status::warn, "no session bus: " + fallback, fix);
    if (!has_owner(bus, name)) {
        if (activatable(bus, name))
            return make("keyring", status::ok, "a Secret Service keyring starts when the secret is read");
        return make("keyring", status::warn, "no Secret Service keyring: " + fallback, fix);
    }
    QVariant locked = property(bus, name, "/org/freedesktop/secrets/aliases/default", "org.freedesktop.Secret.Collection",
                               "Locked");
    if (!locked.isValid())
        return make("keyring", status::warn, "the Secret Service has no default collection: " + fallback,
                    "create a default keyring in the keyring's settings (seahorse, KWallet)");
    if (locked.toBool())
        return make("keyring", status::warn, "the default keyring is locked: the desktop asks to unlock it at start",
                    "unlock it at login (the same password as the account), or unlock it when asked");
    return make("keyring", status::ok, "Secret Service keyring, default collection unlocked");
}

item autostart_check(const QString& path)
{
    QFileInfo entry(path);
    QString folder = entry.absolutePath();
    Json details{{"path", path.toStdString()}};
    if (!entry.exists()) {
        QFileInfo existing(folder);
        while (!existing.exists() && existing.absoluteFilePath() != "/")
            existing = QFileInfo(existing.absolutePath());
        if (!existing.isWritable())
            return make("autostart", status::warn, folder + " cannot be made: Launch at login cannot be set",
                        "make " + folder + " writable for this user", details);
        return make("autostart", status::ok, "Launch at login is off (" + folder + " is usable)", {}, details);
    }
    QSettings desktop(path, QSettings::IniFormat);
    desktop.beginGroup("Desktop Entry");
    QString exec = desktop.value("Exec").toString().section(' ', 0, 0);
    bool hidden = desktop.value("Hidden").toString() == "true" ||
                  desktop.value("X-GNOME-Autostart-enabled").toString() == "false";
    details["exec"] = exec.toStdString();
    if (hidden)
        return make("autostart", status::ok, "Launch at login is off (the entry is disabled)", {}, details);
    if (!QFileInfo(exec).isExecutable())
        return make("autostart", status::warn, "Launch at login starts " + exec + ", which is not there",
                    "turn Launch at login off and on again in the tray menu", details);
    return make("autostart", status::ok, "Launch at login is on (" + exec + ")", {}, details);
}

} // namespace

std::vector<check::item> desktop_app_checks(const QDBusConnection& bus, const QString& autostart_path)
{
    return {tray_check(bus), notification_check(bus), keyring_check(bus), autostart_check(autostart_path)};
}

check::report run_desktop_check(const check::settings& settings, const QDBusConnection& bus,
                                const QString& autostart_path)
{
    auto started = std::chrono::steady_clock::now();
    check::report report;
    report.items = check::run_common(settings);
    for (auto& entry : desktop_app_checks(bus, autostart_path))
        report.items.push_back(std::move(entry));
    report.elapsed_ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started).count();
    return report;
}

int print_desktop_check(const check::settings& settings, bool json)
{
    check::report report = run_desktop_check(settings, QDBusConnection::sessionBus(), autostart::default_path());
    if (json)
        std::cout << report.to_json().dump(2) << "\n";
    else
        std::cout << report.text();
    std::cout.flush();
    return report.exit_status();
}

} // namespace orbweave::app
