#include "app/history.hpp"

#include "app/preferences.hpp"

#include <QMetaObject>

namespace orbweave::app {

history::history(const QString& path)
{
    if (!path.isEmpty())
        log_ = std::make_shared<activity_log>(path.toStdString());
}

QString history::default_path()
{
    return state_home() + "/orbweave/activity.jsonl";
}

std::vector<history_entry> history::recent(std::size_t count) const
{
    std::vector<history_entry> entries;
    if (!log_)
        return entries;
    for (const Json& line : log_->recent(count)) {
        auto text = [&line](const char* key) { return QString::fromStdString(json::string_at(line, {key})); };
        history_entry entry;
        entry.time = QDateTime::fromString(text("time"), Qt::ISODateWithMs).toLocalTime();
        entry.event = text("event");
        entry.kind = text("kind");
        entry.source = text("source");
        entry.ingest = text("ingest");
        entry.decided = text("decided");
        entry.outcome = text("outcome");
        entry.reason = text("reason");
        if (line.contains("duration") && line["duration"].is_number())
            entry.duration = line["duration"].get<double>();
        entries.push_back(std::move(entry));
    }
    return entries;
}

void history::clear()
{
    if (log_)
        log_->clear();
    emit changed();
}

void history::record(const activity_event& event)
{
    if (log_)
        log_->record(event);
    notify();
}

void history::notify()
{
    QMetaObject::invokeMethod(this, [this] { emit changed(); }, Qt::QueuedConnection);
}

} // namespace orbweave::app
