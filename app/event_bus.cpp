#include "app/event_bus.hpp"

#include <QMetaObject>

#include <algorithm>

namespace orbweave::app {

void register_event_types()
{
    qRegisterMetaType<callback::state_type::type>("orbweave::callback::state_type::type");
    qRegisterMetaType<stream_list>("orbweave::app::stream_list");
    qRegisterMetaType<activity>("orbweave::app::activity");
    qRegisterMetaType<stream_health>("orbweave::app::stream_health");
}

void event_bus::post(const char* name, const QVariant& payload)
{
    std::vector<observer> targets;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& entry : observers_)
            if (entry.name == QLatin1String(name) && entry.context)
                targets.push_back(entry);
    }
    for (const auto& target : targets) {
        // Run in the context's own thread; Qt drops the call should the context go first.
        QMetaObject::invokeMethod(
            target.context.data(), [call = target.call, payload] { call(payload); }, Qt::AutoConnection);
    }
}

void event_bus::observe(const char* name, QObject* context, handler handler)
{
    bool first;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        first = std::none_of(observers_.begin(), observers_.end(),
                             [context](const observer& entry) { return entry.context == context; });
        observers_.push_back({QString::fromLatin1(name), context, std::move(handler)});
    }
    // The bus is the connection's context: a bus that goes first takes the connection along.
    if (first)
        QObject::connect(context, &QObject::destroyed, this, [this, context] { forget(context); }, Qt::DirectConnection);
}

void event_bus::forget(QObject* context)
{
    std::lock_guard<std::mutex> lock(mutex_);
    observers_.erase(std::remove_if(observers_.begin(), observers_.end(),
                                    [context](const observer& entry) {
                                        return entry.context.isNull() || entry.context == context;
                                    }),
                     observers_.end());
}

} // namespace orbweave::app
