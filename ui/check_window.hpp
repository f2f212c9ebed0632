#pragma once

// "Check this computer…" in the tray menu: a window that runs the same checks as
// `orbweave --check` off the GUI thread and shows their lines, with Copy (for a
// producer on the phone, or a support request) and Check again.

#include "core/check/checks.hpp"

#include <QDialog>

#include <atomic>
#include <memory>
#include <thread>

class QLabel;
class QMenu;
class QPlainTextEdit;
class QPushButton;

namespace orbweave::ui {

class check_window : public QDialog {
    Q_OBJECT
public:
    explicit check_window(check::settings settings, QWidget* parent = nullptr);
    /// Cancels a check still running and waits for it (at once: its workers are killed).
    ~check_window() override;

    /// Shows the window and starts a check unless one runs.
    void open_and_check();
    /// The lines shown, as Copy copies them.
    QString text() const;

    /// Adds "Check this computer…" to menu, just after its first separator; open runs on a click.
    static void add_to_menu(QMenu* menu, std::function<void()> open);

signals:
    /// A check has finished and its lines are shown.
    void finished();

private:
    void start();
    void show_report(const check::report& report);

    check::settings settings_;
    std::thread runner_;
    std::atomic<bool> closing_{false};
    bool running_ = false;
    QLabel* summary_ = nullptr;
    QPlainTextEdit* lines_ = nullptr;
    QPushButton* copy_ = nullptr;
    QPushButton* again_ = nullptr;
};

} // namespace orbweave::ui
