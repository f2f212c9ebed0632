#include "app/audio_server_process.hpp"

#include "core/log.hpp"

#include <QCoreApplication>
#include <QFileInfo>
#include <QStandardPaths>

#include <sys/prctl.h>

#include <csignal>

namespace orbweave::app {

audio_server_process::audio_server_process()
{
    const QString name = QStringLiteral("orbweave-audio-server");
    QString beside = QFileInfo(QCoreApplication::applicationFilePath()).absolutePath() + "/" + name;
    QString program = QFileInfo(beside).isExecutable() ? beside : QStandardPaths::findExecutable(name);
    if (program.isEmpty()) {
        log::line("orbweave-audio-server was not found; there is no virtual audio output");
        return;
    }
    process_.setProgram(program);
    process_.setStandardOutputFile(QProcess::nullDevice()); // its "ready" line is for tests
    process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    // Should the app die without stopping it (SIGKILL, a crash), the kernel asks it to end,
    // and it unloads its device as on any SIGTERM. Only a system call in the forked child.
    process_.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); });
    process_.start();
    if (!process_.waitForStarted(5000))
        log::line("orbweave-audio-server did not start (" + process_.errorString().toStdString() +
                  "); there is no virtual audio output");
}

audio_server_process::~audio_server_process()
{
    stop();
}

void audio_server_process::stop(std::chrono::milliseconds timeout)
{
    if (process_.state() == QProcess::NotRunning)
        return;
    process_.terminate();
    if (process_.waitForFinished(static_cast<int>(timeout.count())))
        return;
    log::line("orbweave-audio-server did not end within " + std::to_string(timeout.count()) +
              " ms of SIGTERM; it is killed and its device may stay loaded");
    process_.kill();
    process_.waitForFinished(1000);
}

} // namespace orbweave::app
