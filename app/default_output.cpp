#include "app/default_output.hpp"

#include "core/log.hpp"

#include <QMetaObject>

#include <pulse/pulseaudio.h>

#include <optional>

namespace orbweave::app {

namespace {
constexpr pa_usec_t retry_interval = 5 * PA_USEC_PER_SEC;
}

// Everything here but the constructor and the destructor runs on the libpulse thread,
// inside its callbacks, with the loop's lock held.
struct default_output_watcher::pulse {
    pa_threaded_mainloop* loop = nullptr;
    pa_mainloop_api* api = nullptr;
    pa_context* context = nullptr;
    pa_time_event* retry = nullptr;
    std::optional<QString> last;
    bool told_missing = false;
    std::function<void(const QString&)> deliver;

    void connect()
    {
        context = pa_context_new(api, "Orbweave");
        pa_context_set_state_callback(
            context, [](pa_context*, void* self) { static_cast<pulse*>(self)->on_state(); }, this);
        if (pa_context_connect(context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0)
            lost();
    }

    void on_state()
    {
        switch (pa_context_get_state(context)) {
        case PA_CONTEXT_READY:
            told_missing = false;
            pa_context_set_subscribe_callback(
                context,
                [](pa_context*, pa_subscription_event_type_t, uint32_t, void* self) {
                    static_cast<pulse*>(self)->ask();
                },
                this);
            if (pa_operation* subscribing = pa_context_subscribe(context, PA_SUBSCRIPTION_MASK_SERVER, nullptr, nullptr))
                pa_operation_unref(subscribing);
            ask();
            break;
        case PA_CONTEXT_FAILED:
        case PA_CONTEXT_TERMINATED:
            lost();
            break;
        default:
            break;
        }
    }

    /// No server, or it went away: no output, and another try in a while. The context is
    /// released from the timer, outside its own callback.
    void lost()
    {
        if (!told_missing)
            log::line(std::string("No sound server answers (") + pa_strerror(pa_context_errno(context)) +
                      "); the audio output cannot be checked");
        told_missing = true;
        report(QString());
        if (retry)
            return;
        timeval when;
        pa_timeval_add(pa_gettimeofday(&when), retry_interval);
        retry = api->time_new(
            api, &when,
            [](pa_mainloop_api* api, pa_time_event* event, const timeval*, void* data) {
                auto* self = static_cast<pulse*>(data);
                api->time_free(event);
                self->retry = nullptr;
                self->release_context();
                self->connect();
            },
            this);
    }

    void release_context()
    {
        if (!context)
            return;
        pa_context_set_state_callback(context, nullptr, nullptr);
        pa_context_set_subscribe_callback(context, nullptr, nullptr);
        pa_context_disconnect(context);
        pa_context_unref(context);
        context = nullptr;
    }

    /// The default sink's name, then its description and vendor. Answers come in the
    /// order asked, so the last report is the current device.
    void ask()
    {
        pa_operation* asking = pa_context_get_server_info(
            context,
            [](pa_context* context, const pa_server_info* info, void* data) {
                auto* self = static_cast<pulse*>(data);
                if (!info || !info->default_sink_name || !*info->default_sink_name) {
                    self->report(QString());
                    return;
                }
                pa_operation* describing = pa_context_get_sink_info_by_name(
                    context, info->default_sink_name,
                    [](pa_context*, const pa_sink_info* sink, int end, void* data) {
                        auto* self = static_cast<pulse*>(data);
                        if (end > 0)
                            return;
                        if (end < 0 || !sink || !sink->description) {
                            self->report(QString());
                            return;
                        }
                        QString description = QString::fromUtf8(sink->description);
                        if (const char* vendor = pa_proplist_gets(sink->proplist, PA_PROP_DEVICE_VENDOR_NAME))
                            description += QStringLiteral(" (%1)").arg(QString::fromUtf8(vendor));
                        self->report(description);
                    },
                    self);
                if (describing)
                    pa_operation_unref(describing);
            },
            this);
        if (asking)
            pa_operation_unref(asking);
    }

    void report(const QString& description)
    {
        if (last && last->isNull() == description.isNull() && *last == description)
            return;
        last = description;
        deliver(description);
    }
};

default_output_watcher::default_output_watcher(std::function<void(const QString&)> report)
    : pulse_(std::make_unique<pulse>())
{
    // Queued to this object's thread. The libpulse thread ends before this object does,
    // and a report still queued when it is destroyed is dropped.
    pulse_->deliver = [this, report = std::move(report)](const QString& description) {
        QMetaObject::invokeMethod(
            this, [report, description] { report(description); }, Qt::QueuedConnection);
    };
    pulse_->loop = pa_threaded_mainloop_new();
    pulse_->api = pa_threaded_mainloop_get_api(pulse_->loop);
    pa_threaded_mainloop_set_name(pulse_->loop, "default-output");
    pa_threaded_mainloop_lock(pulse_->loop);
    pulse_->connect();
    pa_threaded_mainloop_unlock(pulse_->loop);
    if (pa_threaded_mainloop_start(pulse_->loop) < 0)
        log::line("The audio output watcher could not start its thread");
}

default_output_watcher::~default_output_watcher()
{
    // Joins the libpulse thread; afterwards nothing runs there.
    pa_threaded_mainloop_stop(pulse_->loop);
    if (pulse_->retry)
        pulse_->api->time_free(pulse_->retry);
    pulse_->release_context();
    pa_threaded_mainloop_free(pulse_->loop);
}

} // namespace orbweave::app
