#pragma once

#include <QEvent>
#include <QObject>
#include <QSocketNotifier>

#include <functional>
#include <memory>

namespace orbweave::app {

/// Turns SIGTERM and SIGINT into a call on the GUI thread (the handler only writes a
/// byte to a socket the event loop watches), so the app can quit in order. A quit asked
/// of the application (QCoreApplication::quit(), the desktop session's end) makes the
/// same call instead of ending the event loop at once.
class quit_signals : public QObject {
public:
    explicit quit_signals(std::function<void()> on_signal);
    ~quit_signals() override;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    std::function<void()> on_signal_;
    std::unique_ptr<QSocketNotifier> notifier_;
};

} // namespace orbweave::app
