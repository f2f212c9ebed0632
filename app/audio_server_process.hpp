#pragma once

// orbweave-audio-server as the app runs it: started at launch, ended with the app.

#include <QProcess>

#include <chrono>

namespace orbweave::app {

/// Starts orbweave-audio-server (beside this program first, then on PATH), which makes
/// the virtual output device; a missing one is logged, not fatal. A server that finds the
/// device made already (another one runs, started before the app) ends by itself and so
/// leaves that one alone. The one this starts ends with the app: stop(), the destructor,
/// or the kernel should the app die without either.
class audio_server_process {
public:
    audio_server_process();
    /// stop().
    ~audio_server_process();

    audio_server_process(const audio_server_process&) = delete;
    audio_server_process& operator=(const audio_server_process&) = delete;

    /// Asks the server to end (SIGTERM: it unloads its device and hands the default output
    /// back) and waits for it, at most timeout; one that is still there then is killed,
    /// and the log says so. Nothing when it has ended already.
    void stop(std::chrono::milliseconds timeout = std::chrono::seconds(5));

private:
    QProcess process_;
};

} // namespace orbweave::app
