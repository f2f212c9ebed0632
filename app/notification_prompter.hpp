#pragma once

// Consent prompts as desktop notifications (org.freedesktop.Notifications): an
// "Allow" and a "Deny" action, no time-out; the answer comes from the server's
// ActionInvoked and NotificationClosed signals, once per request whichever comes
// first, and the notification is closed after the answer. Without a server that
// offers actions, the fallback (a dialog) asks instead.

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
             const callback::request& request) override;
    /// Answers every open prompt with a refusal and closes its notification.
    void refuse_all() override;

    /// The body of a notification: name and description on two lines, escaped when the
    /// server reads markup so no text can pose as part of the prompt.
    static QString body(const QString& name, const QString& description, bool markup);

private slots:
    void on_action_invoked(uint id, const QString& action);
    void on_notification_closed(uint id, uint reason);

private:
    /// One question, open from the moment it is asked until its first answer.
    struct prompt {
        callback::request request;
        std::optional<uint> notification; ///< once the server has given it an id
        bool settled = false;
    };

    void show(const prompt_text& text, const std::shared_ptr<prompt>& open);
    void ask_fallback(const prompt_text& text, const std::shared_ptr<prompt>& open);
    void answer_notification(uint id, bool allowed);
    void settle(std::shared_ptr<prompt> open, bool allowed); // by value: it leaves open_

    QDBusConnection bus_;
    fallback fallback_;
    std::vector<std::shared_ptr<prompt>> open_;
};

} // namespace orbweave::app
