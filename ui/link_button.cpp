#include "ui/link_button.hpp"

#include <QPainter>
#include <QStyleOptionFocusRect>
#include <QStylePainter>

namespace orbweave::ui {

namespace {
constexpr int padding = 2; // room for the focus frame around the text
}

link_button::link_button(const QString& text, QWidget* parent)
    : QPushButton(text, parent), at_rest_(palette().color(QPalette::Link)),
      active_(palette().color(QPalette::Highlight))
{
    setFlat(true);
    setCursor(Qt::PointingHandCursor);
    setAccessibleName(text);
    setSizePolicy(QSizePolicy::Maximum, QSizePolicy::Fixed);
    set_underlined(false);
}

void link_button::set_colors(const QColor& at_rest, const QColor& active)
{
    at_rest_ = at_rest;
    active_ = active;
    set_underlined(underlined());
}

QSize link_button::sizeHint() const
{
    QFontMetrics metrics(font());
    return metrics.size(Qt::TextShowMnemonic, text()) + QSize(2 * padding, 2 * padding);
}

void link_button::set_underlined(bool underlined)
{
    QFont shown = font();
    shown.setUnderline(underlined);
    setFont(shown);
    QPalette colours = palette();
    colours.setColor(QPalette::ButtonText, underlined ? active_ : at_rest_);
    setPalette(colours);
    update();
}

void link_button::enterEvent(QEnterEvent* event)
{
    set_underlined(true);
    QPushButton::enterEvent(event);
}

void link_button::leaveEvent(QEvent* event)
{
    set_underlined(hasFocus());
    QPushButton::leaveEvent(event);
}

void link_button::focusInEvent(QFocusEvent* event)
{
    set_underlined(true);
    QPushButton::focusInEvent(event);
}

void link_button::focusOutEvent(QFocusEvent* event)
{
    set_underlined(underMouse());
    QPushButton::focusOutEvent(event);
}

void link_button::paintEvent(QPaintEvent*)
{
    // Text only: no bevel, whatever the style does with flat buttons.
    QStylePainter painter(this);
    painter.setPen(palette().color(QPalette::ButtonText));
    painter.drawText(rect(), Qt::AlignCenter | Qt::TextShowMnemonic, text());
    if (hasFocus()) {
        QStyleOptionFocusRect focus;
        focus.initFrom(this);
        painter.drawPrimitive(QStyle::PE_FrameFocusRect, focus);
    }
}

} // namespace orbweave::ui
