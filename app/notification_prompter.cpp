#include "app/notification_prompter.hpp"

#include "core/log.hpp"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QMetaObject>
#include <QStringList>
#include <QVariantMap>

#include <algorithm>

namespace orbweave::app {

namespace {

const QString service = QStringLiteral("org.freedesktop.Notifications");
const QString path = QStringLiteral("/org/freedesktop/Notifications");
const QString interface = QStringLiteral("org.freedesktop.Notifications");
const QString application_id = QStringLiteral("org.orbweave.Client");

QDBusMessage call(const char* method)
{
    return QDBusMessage::createMethodCall(service, path, interface, QString::fromLatin1(method));
}

} // namespace

notification_prompter::notification_prompter(QDBusConnection bus, fallback fallback)
    : bus_(std::move(bus)), fallback_(std::move(fallback))
{
    bus_.connect(service, path, interface, "ActionInvoked", this, SLOT(on_action_invoked(uint, QString)));
    bus_.connect(service, path, interface, "NotificationClosed", this, SLOT(on_notification_closed(uint, uint)));
}

QString prompt_text::request() const
{
    QString what;
    switch (kind) {
    case callback::source_type::screen: what = notification_prompter::tr("the screen “%1”"); break;
    case callback::source_type::window: what = notification_prompter::tr("the window “%1”"); break;
    case callback::source_type::audio: what = notification_prompter::tr("the audio device “%1”"); break;
    case callback::source_type::video: what = notification_prompter::tr("the camera “%1”"); break;
    default: what = QStringLiteral("“%1”"); break;
    }
    what = what.arg(name);
    if (!description.isEmpty())
        what += QStringLiteral(" (%1)").arg(description);
    return account.isEmpty() ? notification_prompter::tr("The service asks to stream %1.").arg(what)
                             : notification_prompter::tr("%1 asks to stream %2.").arg(account, what);
}

QString prompt_text::live()
{
    return notification_prompter::tr("It will be streamed live until you stop it from the tray icon.");
}

QString notification_prompter::body(const prompt_text& text, bool markup)
{
    QString body = text.request() + "\n" + prompt_text::live();
    return markup ? body.toHtmlEscaped() : body;
}

void notification_prompter::ask(callback::source_type::type kind, const std::string& name,
                                const std::string& description, const std::string& account,
                                const callback::request& request)
{
    prompt_text text{tr("Requesting Permission"), QString::fromStdString(name), QString::fromStdString(description),
                     kind, QString::fromStdString(account)};
    QMetaObject::invokeMethod(
        this,
        [this, text, request] {
            auto open = std::make_shared<prompt>(prompt{request, text, std::nullopt, false, false});
            open_.push_back(open);
            show(text, open);
        },
        Qt::QueuedConnection);
}

void notification_prompter::show(const prompt_text& text, const std::shared_ptr<prompt>& open)
{
    // What the server can do decides how to ask; asked each time, since servers come and go.
    auto* capabilities = new QDBusPendingCallWatcher(bus_.asyncCall(call("GetCapabilities")), this);
    connect(capabilities, &QDBusPendingCallWatcher::finished, this, [this, text, open](QDBusPendingCallWatcher* w) {
        w->deleteLater();
        if (open->settled)
            return;
        QDBusPendingReply<QStringList> offered = *w;
        if (offered.isError() || !offered.value().contains("actions"))
            return ask_fallback(text, open);
        bool markup = offered.value().contains("body-markup");
        QDBusMessage notify = call("Notify");
        QVariantMap hints{{"desktop-entry", application_id}, {"urgency", QVariant::fromValue<uchar>(2)}};
        notify << QStringLiteral("Orbweave") << uint(0) << application_id << text.title
               << body(text, markup)
               // The keys are the protocol's; only the labels are the user's language.
               << QStringList{"default", tr("Allow"), "allow", tr("Allow"), "deny", tr("Deny")} << hints << int(0);
        auto* shown = new QDBusPendingCallWatcher(bus_.asyncCall(notify), this);
        connect(shown, &QDBusPendingCallWatcher::finished, this, [this, text, open](QDBusPendingCallWatcher* s) {
            s->deleteLater();
            QDBusPendingReply<uint> id = *s;
            if (id.isError())
                return open->settled ? void() : ask_fallback(text, open);
            open->notification = id.value();
            // Answered (signed out) while the server was showing it: take it away again.
            if (open->settled)
                bus_.asyncCall(call("CloseNotification") << id.value());
        });
    });
}

void notification_prompter::ask_fallback(const prompt_text& text, const std::shared_ptr<prompt>& open)
{
    if (!fallback_) {
        log::line("No notification server with actions and no other way to ask; the request is refused");
        return settle(open, false);
    }
    fallback_(text, [this, open](bool allowed) { settle(open, allowed); });
}

void notification_prompter::on_action_invoked(uint id, const QString& action)
{
    // A click on the banner is how users look at a notification or put it away: it is no consent.
    if (action == "allow")
        answer_notification(id, true);
    else if (action == "deny")
        answer_notification(id, false);
    else if (action == "default")
        open_dialog(id);
}

void notification_prompter::on_notification_closed(uint id, uint)
{
    answer_notification(id, false);
}

void notification_prompter::answer_notification(uint id, bool allowed)
{
    for (const auto& open : open_)
        if (open->notification == id && !open->in_dialog)
            return settle(open, allowed);
    // Answered already, asked in the dialog now, or not ours.
}

void notification_prompter::open_dialog(uint id)
{
    for (const auto& open : open_) {
        if (open->notification != id || open->in_dialog)
            continue;
        if (!fallback_)
            return; // nothing else can ask: the notification's own buttons still can
        open->in_dialog = true;
        // One question on screen: the notification goes (most servers close it on a click anyway).
        bus_.asyncCall(call("CloseNotification") << id);
        fallback_(open->text, [this, open](bool allowed) { settle(open, allowed); });
        return;
    }
}

void notification_prompter::tell(const QString& summary, const QString& text)
{
    QMetaObject::invokeMethod(
        this,
        [this, summary, text] {
            log::line(summary.toStdString() + ": " + text.toStdString());
            auto* capabilities = new QDBusPendingCallWatcher(bus_.asyncCall(call("GetCapabilities")), this);
            connect(capabilities, &QDBusPendingCallWatcher::finished, this, [this, summary, text](QDBusPendingCallWatcher* w) {
                w->deleteLater();
                QDBusPendingReply<QStringList> offered = *w;
                if (offered.isError())
                    return; // no server: the log line is all there is
                // A source's name or a worker's reason must not read as markup.
                bool markup = offered.value().contains("body-markup");
                QDBusMessage notify = call("Notify");
                QVariantMap hints{{"desktop-entry", application_id}, {"urgency", QVariant::fromValue<uchar>(1)}};
                notify << QStringLiteral("Orbweave") << uint(0) << application_id << summary
                       << (markup ? text.toHtmlEscaped() : text) << QStringList() << hints << int(-1);
                bus_.asyncCall(notify);
            });
        },
        Qt::QueuedConnection);
}

void notification_prompter::settle(std::shared_ptr<prompt> open, bool allowed)
{
    if (open->settled)
        return;
    open->settled = true;
    open_.erase(std::remove(open_.begin(), open_.end(), open), open_.end());
    std::string which = open->notification ? std::to_string(*open->notification) : std::string("(not shown yet)");
    log::line(std::string(allowed ? "User accepted request " : "User rejected request ") + which);
    if (open->notification)
        bus_.asyncCall(call("CloseNotification") << *open->notification);
    open->request.answer(allowed);
}

void notification_prompter::refuse_all()
{
    // On this object's thread: every open question is answered now, shown or not.
    while (!open_.empty())
        settle(open_.front(), false);
}

} // namespace orbweave::app
