#pragma once

// A button that looks and behaves like a hyperlink: borderless text in the link
// colour, underlined in its active colour while the pointer is over it (or it has the
// keyboard focus), with the pointing-hand cursor. It is still a button: Tab reaches
// it, and Space or Enter presses it.

#include <QColor>
#include <QPushButton>

namespace orbweave::ui {

class link_button : public QPushButton {
public:
    /// The colours default to the palette's link colour at rest and its highlight
    /// colour while active.
    explicit link_button(const QString& text, QWidget* parent = nullptr);

    void set_colors(const QColor& at_rest, const QColor& active);
    bool underlined() const { return font().underline(); }
    QSize sizeHint() const override;

protected:
    void enterEvent(QEnterEvent* event) override;
    void leaveEvent(QEvent* event) override;
    void focusInEvent(QFocusEvent* event) override;
    void focusOutEvent(QFocusEvent* event) override;
    void paintEvent(QPaintEvent* event) override;

private:
    void set_underlined(bool underlined);

    QColor at_rest_;
    QColor active_;
};

} // namespace orbweave::ui
