#pragma once

// Watches the sound server's default output device, for the audio-output alert. The
// server is asked on a libpulse thread of its own, never the GUI thread: once on
// connecting and again on every server change. A lost or missing server reads as "no
// output" and is asked again every few seconds, so a sound server that restarts (or
// starts late) is found again.

#include <QObject>
#include <QString>

#include <functional>
#include <memory>

namespace orbweave::app {

class default_output_watcher : public QObject {
public:
    /// report runs on this object's thread with the default output's description,
    /// "name (vendor)" (or the name alone when the device names no vendor), or a null
    /// QString when there is no default output or no sound server. It runs once at
    /// start and then only when the description changes.
    explicit default_output_watcher(std::function<void(const QString&)> report);
    /// Stops the libpulse thread; nothing is reported afterwards.
    ~default_output_watcher() override;

    default_output_watcher(const default_output_watcher&) = delete;
    default_output_watcher& operator=(const default_output_watcher&) = delete;

private:
    struct pulse;
    std::unique_ptr<pulse> pulse_;
};

} // namespace orbweave::app
