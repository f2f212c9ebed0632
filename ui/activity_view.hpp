#pragma once

// The Activity view: the last events of the history, newest first, one line each in
// local time, and a button that clears the history.

#include "app/history.hpp"

#include <QString>
#include <QWidget>

#include <functional>

namespace orbweave::ui {

/// How many events the view lists.
inline constexpr std::size_t activity_lines = 50;

/// One event as the view lists it: "14:03 · Streaming the screen “Display 1” to rtmp://host, allowed by a rule".
QString activity_line(const app::history_entry& entry);

/// The view over events (none: an empty list); done closes the window.
QWidget* make_activity_view(app::history* events, std::function<void()> done);

} // namespace orbweave::ui
