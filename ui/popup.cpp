#include "ui/popup.hpp"

#include <QGuiApplication>
#include <QWidget>

#include <xcb/xcb.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <vector>

namespace orbweave::ui {

namespace {

constexpr int margin = 8; // between a popup and the icon or the screen's edge

enum class edge { top, bottom, left, right };

/// The screen edge nearest to point.
edge nearest_edge(const QPoint& point, const QRect& screen)
{
    std::array<std::pair<int, edge>, 4> distances{{{point.y() - screen.top(), edge::top},
                                                   {screen.bottom() - point.y(), edge::bottom},
                                                   {point.x() - screen.left(), edge::left},
                                                   {screen.right() - point.x(), edge::right}}};
    return std::min_element(distances.begin(), distances.end())->second;
}

/// The edge a panel keeps room at (the widest strip screen has beyond available), if any.
std::optional<edge> panel_edge(const QRect& screen, const QRect& available)
{
    std::array<std::pair<int, edge>, 4> strips{{{available.top() - screen.top(), edge::top},
                                                {screen.bottom() - available.bottom(), edge::bottom},
                                                {available.left() - screen.left(), edge::left},
                                                {screen.right() - available.right(), edge::right}}};
    auto widest = std::max_element(strips.begin(), strips.end());
    if (widest->first <= 0)
        return std::nullopt;
    return widest->second;
}

xcb_atom_t intern(xcb_connection_t* connection, const char* name)
{
    xcb_intern_atom_reply_t* reply =
        xcb_intern_atom_reply(connection, xcb_intern_atom(connection, 0, std::strlen(name), name), nullptr);
    xcb_atom_t atom = reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
    std::free(reply);
    return atom;
}

} // namespace

QPoint popup_position(const QRect& anchor, const QSize& size, const QRect& screen, const QRect& available)
{
    QRect area = available.isValid() ? available : screen;
    int x = 0;
    int y = 0;
    if (anchor.isValid()) {
        // Beside the icon, centred on it, on the side facing into the screen.
        QPoint centre = anchor.center();
        switch (nearest_edge(centre, screen)) {
        case edge::top: x = centre.x() - size.width() / 2; y = anchor.bottom() + 1 + margin; break;
        case edge::bottom: x = centre.x() - size.width() / 2; y = anchor.top() - margin - size.height(); break;
        case edge::left: x = anchor.right() + 1 + margin; y = centre.y() - size.height() / 2; break;
        case edge::right: x = anchor.left() - margin - size.width(); y = centre.y() - size.height() / 2; break;
        }
    } else {
        // Where a tray usually sits: the far end of a horizontal panel, the lower end of a
        // vertical one.
        switch (panel_edge(screen, area).value_or(edge::top)) {
        case edge::top: x = area.right() + 1 - size.width(); y = area.top(); break;
        case edge::bottom: x = area.right() + 1 - size.width(); y = area.bottom() + 1 - size.height(); break;
        case edge::left: x = area.left(); y = area.bottom() + 1 - size.height(); break;
        case edge::right: x = area.right() + 1 - size.width(); y = area.bottom() + 1 - size.height(); break;
        }
    }
    // Whole on the work area (its top left corner first, should the popup be larger).
    x = std::max(area.left() + margin, std::min(x, area.right() + 1 - margin - size.width()));
    y = std::max(area.top() + margin, std::min(y, area.bottom() + 1 - margin - size.height()));
    return {x, y};
}

void keep_out_of_task_bar(QWidget* window)
{
    // Wayland has no such hint; a mapped window's states are the window manager's.
    auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    if (QGuiApplication::platformName() != QLatin1String("xcb") || !x11 || !x11->connection() || window->isVisible())
        return;
    xcb_connection_t* connection = x11->connection();
    auto id = static_cast<xcb_window_t>(window->winId());
    xcb_atom_t property = intern(connection, "_NET_WM_STATE");
    // Qt merges its own states into what the unmapped window has; so do we.
    std::vector<xcb_atom_t> states;
    xcb_get_property_reply_t* reply = xcb_get_property_reply(
        connection, xcb_get_property(connection, 0, id, property, XCB_ATOM_ATOM, 0, 1024), nullptr);
    if (reply && reply->format == 32 && reply->type == XCB_ATOM_ATOM) {
        auto* first = static_cast<const xcb_atom_t*>(xcb_get_property_value(reply));
        states.assign(first, first + xcb_get_property_value_length(reply) / 4);
    }
    std::free(reply);
    for (const char* name : {"_NET_WM_STATE_SKIP_TASKBAR", "_NET_WM_STATE_SKIP_PAGER"}) {
        xcb_atom_t state = intern(connection, name);
        if (std::find(states.begin(), states.end(), state) == states.end())
            states.push_back(state);
    }
    xcb_change_property(connection, XCB_PROP_MODE_REPLACE, id, property, XCB_ATOM_ATOM, 32,
                        static_cast<std::uint32_t>(states.size()), states.data());
    xcb_flush(connection);
}

} // namespace orbweave::ui
