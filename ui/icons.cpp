#include "ui/icons.hpp"

// The icons are compiled into this static library; their registration must be pulled in.
static void register_icons()
{
    static const bool registered = [] {
        Q_INIT_RESOURCE(icons);
        return true;
    }();
    (void)registered;
}

namespace orbweave::ui {

QIcon builtin_icon(const QString& name)
{
    register_icons();
    return QIcon(":/icons/" + name + ".svg");
}

QIcon themed_icon(const QString& theme_name, const QString& builtin)
{
    return QIcon::fromTheme(theme_name, builtin_icon(builtin));
}

} // namespace orbweave::ui
