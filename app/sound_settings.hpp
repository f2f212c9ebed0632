#pragma once

// Opens the desktop's sound output settings with the first tool found on PATH:
// pavucontrol on its output tab, GNOME Settings' sound panel, or KDE System Settings'
// audio module.

#include <QString>
#include <QStringList>

#include <optional>

namespace orbweave::app {

struct sound_settings_tool {
    QString program; // absolute path
    QStringList arguments;
};

/// The first of the tools on PATH; none when no tool is installed.
std::optional<sound_settings_tool> find_sound_settings();

/// Starts the tool found, detached. False when none is installed or it cannot start.
bool open_sound_settings();

/// What to tell a user who has none of them.
QString sound_settings_missing_text();

} // namespace orbweave::app
