#include "app/quit_signals.hpp"

#include <QCoreApplication>

#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

namespace orbweave::app {

namespace {

int signal_fds[2] = {-1, -1};

void on_unix_signal(int)
{
    char byte = 1;
    [[maybe_unused]] auto ignored = ::write(signal_fds[0], &byte, 1);
}

} // namespace

quit_signals::quit_signals(std::function<void()> on_signal) : on_signal_(std::move(on_signal))
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signal_fds) != 0)
        throw std::runtime_error("cannot create the signal socket");
    notifier_ = std::make_unique<QSocketNotifier>(signal_fds[1], QSocketNotifier::Read);
    QObject::connect(notifier_.get(), &QSocketNotifier::activated, this, [this] {
        char byte;
        [[maybe_unused]] auto ignored = ::read(signal_fds[1], &byte, 1);
        on_signal_();
    });
    struct sigaction action {};
    action.sa_handler = on_unix_signal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);
    QCoreApplication::instance()->installEventFilter(this);
}

bool quit_signals::eventFilter(QObject* watched, QEvent* event)
{
    if (watched != QCoreApplication::instance() || event->type() != QEvent::Quit)
        return QObject::eventFilter(watched, event);
    on_signal_();
    return true;
}

quit_signals::~quit_signals()
{
    ::signal(SIGTERM, SIG_DFL);
    ::signal(SIGINT, SIG_DFL);
    notifier_.reset();
    ::close(signal_fds[0]);
    ::close(signal_fds[1]);
}

} // namespace orbweave::app
