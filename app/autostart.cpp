#include "app/autostart.hpp"

#include "app/preferences.hpp"
#include "core/log.hpp"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QSettings>

namespace orbweave::app {

QString autostart::default_path()
{
    return config_home() + "/autostart/org.orbweave.Client.desktop";
}

autostart::autostart(event_bus& bus, QString executable, QString path)
    : bus_(bus), executable_(std::move(executable)), path_(std::move(path))
{
    // The folder is watched (not only the file), so an entry made by someone else is seen too.
    QDir().mkpath(QFileInfo(path_).absolutePath());
    connect(&watcher_, &QFileSystemWatcher::directoryChanged, this, [this] { watch(); });
    connect(&watcher_, &QFileSystemWatcher::fileChanged, this, [this] { watch(); });
    watcher_.addPath(QFileInfo(path_).absolutePath());
    if (QFile::exists(path_))
        watcher_.addPath(path_);
}

void autostart::watch()
{
    // An edited file may be replaced by a new one (editors save that way): watch it again.
    if (QFile::exists(path_) && !watcher_.files().contains(path_))
        watcher_.addPath(path_);
    bus_.post(events::launch_at_login_changed);
}

bool autostart::enabled() const
{
    if (!QFile::exists(path_))
        return false;
    QSettings entry(path_, QSettings::IniFormat);
    entry.beginGroup("Desktop Entry");
    return entry.value("Hidden").toString() != "true" &&
           entry.value("X-GNOME-Autostart-enabled").toString() != "false";
}

void autostart::set_enabled(bool on)
{
    if (!on) {
        QFile::remove(path_);
        return;
    }
    // Exec follows the desktop entry rules: a path with spaces is quoted.
    QString exec = executable_.contains(' ') ? "\"" + executable_ + "\"" : executable_;
    QSaveFile file(path_);
    if (!file.open(QIODevice::WriteOnly)) {
        log::line("Cannot write the autostart entry ", path_.toStdString());
        return;
    }
    file.write(QStringLiteral("[Desktop Entry]\n"
                              "Type=Application\n"
                              "Name=Orbweave\n"
                              "Comment=Lets your live-production service use this computer's sources\n"
                              "Comment[de]=Lässt Ihren Live-Produktionsdienst die Quellen dieses Computers nutzen\n"
                              "Exec=%1\n"
                              "Icon=org.orbweave.Client\n"
                              "X-GNOME-Autostart-enabled=true\n")
                   .arg(exec)
                   .toUtf8());
    if (!file.commit())
        log::line("Cannot write the autostart entry ", path_.toStdString());
}

} // namespace orbweave::app
