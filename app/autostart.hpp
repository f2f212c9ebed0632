#pragma once

// Launch at login: the XDG autostart entry $XDG_CONFIG_HOME/autostart/org.orbweave.Client.desktop.
// It counts as on when the file exists and neither Hidden=true nor
// X-GNOME-Autostart-enabled=false is set. Whoever changes it (this app, the
// desktop's settings, the user with an editor), "app:launchAtLogin:changed" is posted.

#include "app/event_bus.hpp"

#include <QFileSystemWatcher>
#include <QObject>
#include <QString>

namespace orbweave::app {

class autostart : public QObject {
public:
    /// $XDG_CONFIG_HOME/autostart/org.orbweave.Client.desktop (default ~/.config/...).
    static QString default_path();

    /// executable is what the entry starts (the running program's absolute path).
    autostart(event_bus& bus, QString executable, QString path = default_path());

    bool enabled() const;
    /// On writes the entry (once, however often it is called); off removes it.
    void set_enabled(bool on);

    QString path() const { return path_; }

private:
    void watch();

    event_bus& bus_;
    QString executable_;
    QString path_;
    QFileSystemWatcher watcher_;
};

} // namespace orbweave::app
