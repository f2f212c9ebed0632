#pragma once

// The history of what the service used (core's activity_log) as the shell reads it:
// the last events for the Activity view, a change signal on the GUI thread, Clear, and
// the user's own sign-out.

#include "core/activity_log.hpp"

#include <QDateTime>
#include <QObject>
#include <QString>

#include <memory>
#include <optional>
#include <vector>

namespace orbweave::app {

/// One event of the history, as the view shows it.
struct history_entry {
    QDateTime time; ///< local time
    QString event, kind, source, ingest, decided, outcome, reason;
    std::optional<double> duration; ///< seconds, for an end
};

class history : public QObject {
    Q_OBJECT

public:
    /// The history in the file at path ("" keeps none).
    explicit history(const QString& path);

    /// Where the client appends; null without a file.
    const std::shared_ptr<activity_log>& log() const { return log_; }
    /// The last count events, newest first.
    std::vector<history_entry> recent(std::size_t count) const;
    /// Forgets every event.
    void clear();
    /// Appends an event of the shell's own (the user's sign-out).
    void record(const activity_event& event);
    /// Something was recorded; from any thread, changed() follows on this object's thread.
    void notify();

    /// The default file: $XDG_STATE_HOME/orbweave/activity.jsonl.
    static QString default_path();

signals:
    void changed();

private:
    std::shared_ptr<activity_log> log_;
};

} // namespace orbweave::app
