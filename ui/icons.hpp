#pragma once

// The interface's icons: the desktop theme's where it has them, so the app fits the
// desktop, and our own SVGs (compiled in under ":/icons/") where it does not.

#include <QIcon>
#include <QString>

namespace orbweave::ui {

/// Our own icon ":/icons/<name>.svg" ("app", "connected", "source-display", ...).
QIcon builtin_icon(const QString& name);

/// The theme's icon called theme_name, else our own called builtin.
QIcon themed_icon(const QString& theme_name, const QString& builtin);

} // namespace orbweave::ui
