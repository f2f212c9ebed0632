#pragma once

#include <QObject>
#include <QTimer>

#include <functional>

namespace orbweave::ui {

/// Calls a frame function on a repeating timer: frames 0 to frames (inclusive) one
/// interval apart, then stops. The tray's blink is 8 frames at 200 ms: nine calls,
/// ending on an even frame.
class interval_animator : public QObject {
public:
    interval_animator(int frames, int interval_ms, std::function<void(int frame)> on_frame);

    void start();
    void stop();
    bool running() const { return timer_.isActive(); }
    /// One timer tick: the next frame, and the end after the last. Tests drive it directly.
    void tick();

private:
    int frames_;
    int current_ = -1;
    std::function<void(int)> on_frame_;
    QTimer timer_;
};

} // namespace orbweave::ui
