#pragma once

// What the app's small windows (the audio alert, the consent dialog) need to behave like
// popups rather than windows of their own: no task-bar entry, and a place next to the
// tray icon, or at the panel's edge of the screen.

#include <QPoint>
#include <QRect>
#include <QSize>

class QWidget;

namespace orbweave::ui {

/// Where a popup of size goes, whole inside available (the screen's work area), a margin
/// off every edge. Next to anchor (the tray icon, or the point clicked on it) when that is
/// known, on the side away from the screen edge it is nearest; otherwise in the corner of
/// the panel's edge (the side where available leaves out part of screen), at the top right
/// when no panel keeps any room.
QPoint popup_position(const QRect& anchor, const QSize& size, const QRect& screen, const QRect& available);

/// Keeps a top-level widget out of the task bar and the pager (the skip hints, on X11),
/// its window type and focus rules as they are. Call it before each show: a window
/// manager drops the hints when the window is hidden.
void keep_out_of_task_bar(QWidget* window);

} // namespace orbweave::ui
