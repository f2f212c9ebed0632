#include "media/portal_session.hpp"

#include "core/end_notice.hpp"
#include "core/log.hpp"
#include "media/c_boundary.hpp"

#include <libportal/portal.h>

#include <unistd.h>

#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <thread>

namespace orbweave::obs {

namespace {

/// A uint32 property of the portal's ScreenCast interface; 0 when no portal answers.
unsigned screen_cast_property(const char* name)
{
    GError* error = nullptr;
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
    if (!bus) {
        g_clear_error(&error);
        return 0;
    }
    GVariant* reply = g_dbus_connection_call_sync(
        bus, "org.freedesktop.portal.Desktop", "/org/freedesktop/portal/desktop", "org.freedesktop.DBus.Properties",
        "Get", g_variant_new("(ss)", "org.freedesktop.portal.ScreenCast", name),
        G_VARIANT_TYPE("(v)"), G_DBUS_CALL_FLAGS_NONE,
        static_cast<int>(limits::portal_query.count()), nullptr, &error);
    g_object_unref(bus);
    unsigned types = 0;
    if (reply) {
        GVariant* value = nullptr;
        g_variant_get(reply, "(v)", &value);
        if (g_variant_is_of_type(value, G_VARIANT_TYPE_UINT32))
            types = g_variant_get_uint32(value);
        g_variant_unref(value);
        g_variant_unref(reply);
    }
    g_clear_error(&error);
    return types;
}

const char* cursor_mode_name(unsigned mode)
{
    switch (mode) {
    case portal_cursor_embedded: return "embedded in the picture";
    case portal_cursor_metadata: return "as metadata beside the picture (not drawn)";
    default: return "hidden";
    }
}

} // namespace

unsigned portal_source_types()
{
    return screen_cast_property("AvailableSourceTypes");
}

unsigned portal_cursor_modes()
{
    return screen_cast_property("AvailableCursorModes");
}

unsigned choose_cursor_mode(unsigned available)
{
    for (unsigned mode : {portal_cursor_embedded, portal_cursor_metadata, portal_cursor_hidden})
        if (available & mode)
            return mode;
    return portal_cursor_hidden;
}

// ---------------------------------------------------------------------------------
// The portal session. libportal is GLib-based: every call and callback runs on a
// GLib main loop of the session's own thread.

struct portal_session::impl {
    GMainContext* context = g_main_context_new();
    GMainLoop* loop = g_main_loop_new(context, FALSE);
    GCancellable* cancellable = g_cancellable_new();
    std::thread thread;
    XdpPortal* portal = nullptr;
    XdpSession* session = nullptr;

    std::mutex mutex;
    std::condition_variable changed;
    bool answered = false;
    cast result;
    // The desktop ending the cast: told once, to the handler set when it comes.
    end_notice closed;

    impl()
    {
        thread = std::thread([this] {
            g_main_context_push_thread_default(context);
            g_main_loop_run(loop);
            g_main_context_pop_thread_default(context);
        });
    }

    ~impl()
    {
        on_loop([this] {
            if (session) {
                g_signal_handlers_disconnect_by_data(session, this);
                if (xdp_session_get_session_state(session) == XDP_SESSION_ACTIVE)
                    xdp_session_close(session);
                g_object_unref(session);
            }
            if (portal)
                g_object_unref(portal);
            g_main_loop_quit(loop);
        });
        thread.join();
        g_object_unref(cancellable);
        g_main_loop_unref(loop);
        g_main_context_unref(context);
    }

    /// Runs task on the session's thread and waits for it.
    void on_loop(std::function<void()> task)
    {
        struct call {
            std::function<void()> task;
            std::promise<void> done;
        };
        auto* posted = new call{std::move(task), {}};
        std::future<void> done = posted->done.get_future();
        g_main_context_invoke_full(
            context, G_PRIORITY_DEFAULT,
            [](gpointer data) -> gboolean {
                std::unique_ptr<call> posted(static_cast<call*>(data));
                guarded("a call on the screen cast's thread", posted->task);
                // The caller waits for this whatever the task did.
                guarded("a call on the screen cast's thread", [&] { posted->done.set_value(); });
                return G_SOURCE_REMOVE;
            },
            posted, nullptr);
        done.wait();
    }

    void answer(cast outcome)
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (answered) {
                // Too late (the wait gave up): nothing may stay open.
                if (outcome.pipewire_fd >= 0)
                    ::close(outcome.pipewire_fd);
                return;
            }
            answered = true;
            result = std::move(outcome);
        }
        changed.notify_all();
    }

    void fail(GError* error, const char* doing)
    {
        cast outcome;
        bool user = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED) &&
                    !g_cancellable_is_cancelled(cancellable);
        outcome.result = user ? outcome::cancelled : outcome::failed;
        outcome.error = user ? "the screen cast was declined on the desktop"
                             : std::string(doing) + ": " + (error ? error->message : "unknown error");
        answer(std::move(outcome));
    }

    void start(const std::string& restore_token, bool window, unsigned cursor)
    {
        // Without a portal on the bus, the session's creation fails with the reason.
        portal = xdp_portal_new();
        xdp_portal_create_screencast_session(
            portal, window ? XDP_OUTPUT_WINDOW : XDP_OUTPUT_MONITOR, XDP_SCREENCAST_FLAG_NONE,
            static_cast<XdpCursorMode>(cursor),
            XDP_PERSIST_MODE_PERSISTENT, restore_token.empty() ? nullptr : restore_token.c_str(), cancellable,
            [](GObject* source, GAsyncResult* result, gpointer data) {
                guarded("the screen cast session's creation",
                        [&] { static_cast<impl*>(data)->created(XDP_PORTAL(source), result); });
            },
            this);
    }

    void created(XdpPortal* source, GAsyncResult* result)
    {
        GError* error = nullptr;
        session = xdp_portal_create_screencast_session_finish(source, result, &error);
        if (!session) {
            fail(error, "the desktop portal did not open a screen cast");
            g_clear_error(&error);
            return;
        }
        g_signal_connect(session, "closed", G_CALLBACK(+[](XdpSession*, gpointer data) {
                             guarded("the screen cast's closed signal", [&] {
                                 static_cast<impl*>(data)->closed.end("the desktop ended the screen cast");
                             });
                         }),
                         this);
        xdp_session_start(
            session, nullptr, cancellable,
            [](GObject*, GAsyncResult* result, gpointer data) {
                guarded("the screen cast's start", [&] { static_cast<impl*>(data)->started(result); });
            },
            this);
    }

    void started(GAsyncResult* result)
    {
        GError* error = nullptr;
        if (!xdp_session_start_finish(session, result, &error)) {
            fail(error, "the screen cast did not start");
            g_clear_error(&error);
            return;
        }
        cast outcome;
        GVariant* streams = xdp_session_get_streams(session);
        GVariantIter iter;
        guint32 node = 0;
        GVariant* properties = nullptr;
        if (!streams || (g_variant_iter_init(&iter, streams), !g_variant_iter_next(&iter, "(u@a{sv})", &node, &properties))) {
            outcome.error = "the desktop started a screen cast without a stream";
            return answer(std::move(outcome));
        }
        gint32 x = 0, y = 0, width = 0, height = 0;
        bool has_position = g_variant_lookup(properties, "position", "(ii)", &x, &y);
        bool has_size = g_variant_lookup(properties, "size", "(ii)", &width, &height);
        g_variant_unref(properties);
        outcome.node = node;
        outcome.has_geometry = has_position && has_size;
        outcome.left = x;
        outcome.top = y;
        outcome.width = width;
        outcome.height = height;
        if (char* token = xdp_session_get_restore_token(session)) {
            outcome.restore_token = token;
            g_free(token);
        }
        outcome.pipewire_fd = xdp_session_open_pipewire_remote(session);
        if (outcome.pipewire_fd < 0) {
            outcome.error = "the desktop did not open the screen cast's PipeWire remote";
            return answer(std::move(outcome));
        }
        outcome.result = outcome::started;
        answer(std::move(outcome));
    }
};

portal_session::portal_session(const std::string& restore_token, bool window, std::chrono::milliseconds limit)
    : impl_(std::make_unique<impl>())
{
    // A mode the portal does not offer fails the session, so ask for one it does.
    unsigned cursor = choose_cursor_mode(portal_cursor_modes());
    log::line(std::string("media: the screen cast shows the pointer ") + cursor_mode_name(cursor));
    impl_->on_loop([this, restore_token, window, cursor] { impl_->start(restore_token, window, cursor); });
    std::unique_lock<std::mutex> lock(impl_->mutex);
    if (!impl_->changed.wait_for(lock, limit, [this] { return impl_->answered; })) {
        // Nobody answered the picker in time: give up, and leave nothing open.
        impl_->answered = true;
        lock.unlock();
        impl_->on_loop([this] { g_cancellable_cancel(impl_->cancellable); });
        cast_.error = "the desktop did not start the screen cast within " +
                      std::to_string(std::chrono::duration_cast<std::chrono::seconds>(limit).count()) + " s";
        return;
    }
    cast_ = impl_->result;
}

portal_session::~portal_session()
{
    // Our own close is not the desktop ending the cast.
    impl_->closed.silence();
    impl_.reset();
}

void portal_session::set_closed_handler(std::function<void(const std::string& reason)> handler)
{
    impl_->closed.on_end(std::move(handler));
}

} // namespace orbweave::obs
