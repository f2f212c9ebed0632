#include "ui/check_window.hpp"

#include "app/autostart.hpp"
#include "app/desktop_check.hpp"

#include <QApplication>
#include <QClipboard>
#include <QFontDatabase>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenu>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QVBoxLayout>

namespace orbweave::ui {

check_window::check_window(check::settings settings, QWidget* parent)
    : QDialog(parent), settings_(std::move(settings))
{
    setObjectName("checkWindow");
    setWindowTitle(tr("Check this computer"));
    summary_ = new QLabel(this);
    summary_->setObjectName("checkSummary");
    summary_->setWordWrap(true);
    lines_ = new QPlainTextEdit(this);
    lines_->setObjectName("checkLines");
    lines_->setAccessibleName(tr("Check results"));
    lines_->setReadOnly(true);
    lines_->setLineWrapMode(QPlainTextEdit::NoWrap);
    lines_->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    copy_ = new QPushButton(tr("Copy"), this);
    copy_->setAccessibleName(tr("Copy"));
    again_ = new QPushButton(tr("Check again"), this);
    again_->setAccessibleName(tr("Check again"));
    auto* close = new QPushButton(tr("Close"), this);
    connect(copy_, &QPushButton::clicked, this, [this] { QApplication::clipboard()->setText(text()); });
    connect(again_, &QPushButton::clicked, this, [this] { start(); });
    connect(close, &QPushButton::clicked, this, &QDialog::close);

    auto* buttons = new QHBoxLayout;
    buttons->addWidget(copy_);
    buttons->addWidget(again_);
    buttons->addStretch();
    buttons->addWidget(close);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(summary_);
    layout->addWidget(lines_, 1);
    layout->addLayout(buttons);
    resize(900, 420);
}

check_window::~check_window()
{
    closing_ = true;
    if (runner_.joinable())
        runner_.join();
}

void check_window::open_and_check()
{
    show();
    raise();
    activateWindow();
    if (!running_ && lines_->toPlainText().isEmpty())
        start();
}

QString check_window::text() const
{
    return lines_->toPlainText();
}

void check_window::start()
{
    if (running_)
        return;
    if (runner_.joinable())
        runner_.join(); // finished: its result is already shown
    running_ = true;
    copy_->setEnabled(false);
    again_->setEnabled(false);
    summary_->setText(tr("Checking this computer… (a few seconds)"));
    lines_->clear();
    check::settings settings = settings_;
    settings.cancelled = [this] { return closing_.load(); };
    runner_ = std::thread([this, settings] {
        // Blocking D-Bus calls and worker processes, each bounded, off the GUI thread.
        check::report report =
            app::run_desktop_check(settings, QDBusConnection::sessionBus(), app::autostart::default_path());
        // Dropped by Qt if the window is gone by then (it joins this thread first anyway).
        QMetaObject::invokeMethod(
            this, [this, report] { show_report(report); }, Qt::QueuedConnection);
    });
}

void check_window::show_report(const check::report& report)
{
    running_ = false;
    copy_->setEnabled(true);
    again_->setEnabled(true);
    lines_->setPlainText(QString::fromStdString(report.text()).trimmed());
    int warnings = 0, failures = 0;
    for (const auto& entry : report.items) {
        warnings += entry.level == check::status::warn;
        failures += entry.level == check::status::fail;
    }
    if (failures)
        summary_->setText(tr("A stream cannot work here (checks failed: %1). Each line marked \"fail\" says what to do.")
                              .arg(failures));
    else if (warnings)
        summary_->setText(tr("A stream can work here. Checks with a warning: %1; each says what to do.").arg(warnings));
    else
        summary_->setText(tr("A stream can work here. Everything was found."));
    emit finished();
}

void check_window::add_to_menu(QMenu* menu, std::function<void()> open)
{
    auto* action = new QAction(tr("Check this computer…"), menu);
    QObject::connect(action, &QAction::triggered, menu, [open = std::move(open)] { open(); });
    // After the first separator: the lines above it (the state, the running streams)
    // stay together.
    const QList<QAction*> actions = menu->actions();
    for (int i = 0; i + 1 < actions.size(); ++i)
        if (actions[i]->isSeparator()) {
            menu->insertAction(actions[i + 1], action);
            return;
        }
    menu->addAction(action);
}

} // namespace orbweave::ui
