#pragma once

// Consent prompts as desktop notifications (org.freedesktop.Notifications): an
// "Allow" and a "Deny" action, no time-out; the answer comes from the server's
// ActionInvoked and NotificationClosed signals, once per request whichever comes
// first, and the notification is closed after the answer. Only "Allow" grants: a click
// on the notification's body (its "default" action) opens the fallback (a dialog) for
// the same request, which then answers it. Without a server that offers actions, the
// fallback asks instead.

#include "app/app_delegate.hpp"

#include <QDBusConnection>
#include <QObject>
#include <QString>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace orbweave::app {

/// What a prompt shows.
struct prompt_text {
    QString title;       ///< "Requesting Permission"
    QString name;        ///< the source's name, as this machine names it
    QString description; ///< the source's description
    callback::source_type::type kind = callback::source_type::none;
    QString account;     ///< the display name of the account that asks; "" when unknown

    /// "Ann asks to stream the screen “Display 1” (1280x720)."
    QString request() const;
    /// That it will be live until stopped from the tray.
    static QString live();
};

class notification_prompter : public QObject, public prompter {
    Q_OBJECT

public:
    /// Asks with a prompt of its own (a dialog) when notifications cannot; it must call
    /// answer exactly once. Runs on this object's thread.
    using fallback = std::function<void(const prompt_text& text, std::function<void(bool)> answer)>;

    explicit notification_prompter(QDBusConnection bus = QDBusConnection::sessionBus(), fallback fallback = {});

    /// From any thread; the prompt is shown from this object's thread.
    void ask(callback::source_type::type kind, const std::string& name, const std::string& description,
             const std::string& account, const callback::request& request) override;
    /// Answers every open prompt with a refusal and closes its notification.
    void refuse_all() override;
    /// A notification without actions; logged where no server shows it.
    void tell(const QString& summary, const QString& body) override;

    /// The body of a notification: who asks for what, and that it goes live, on two
    /// lines, escaped when the server reads markup so no text can pose as part of the prompt.
    static QString body(const prompt_text& text, bool markup);

private slots:
    void on_action_invoked(uint id, const QString& action);
    void on_notification_closed(uint id, uint reason);

private:
    /// One question, open from the moment it is asked until its first answer.
    struct prompt {
        callback::request request;
        prompt_text text;
        std::optional<uint> notification; ///< once the server has given it an id
        bool settled = false;
        /// Its body was clicked: the dialog answers, whatever becomes of the notification.
        bool in_dialog = false;
    };

    void show(const prompt_text& text, const std::shared_ptr<prompt>& open);
    void ask_fallback(const prompt_text& text, const std::shared_ptr<prompt>& open);
    void answer_notification(uint id, bool allowed);
    /// The notification's body was clicked: the same request goes to the dialog.
    void open_dialog(uint id);
    void settle(std::shared_ptr<prompt> open, bool allowed); // by value: it leaves open_

    QDBusConnection bus_;
    fallback fallback_;
    std::vector<std::shared_ptr<prompt>> open_;
};

} // namespace orbweave::app
