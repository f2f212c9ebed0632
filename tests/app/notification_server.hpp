#pragma once

// A stand-in for the desktop's notification server on a test bus: it records every
// Notify and CloseNotification and emits what a user's clicks would.

#include <QDBusConnection>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

#include <vector>

namespace orbweave::app {

class notification_server : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

public:
    struct notify_call {
        QString app_name;
        uint replaces_id;
        QString app_icon, summary, body;
        QStringList actions;
        QVariantMap hints;
        int expire_timeout;
    };

    notification_server(QDBusConnection bus, QStringList capabilities)
        : bus_(std::move(bus)), capabilities_(std::move(capabilities))
    {
        bus_.registerObject("/org/freedesktop/Notifications", this,
                            QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals);
        bus_.registerService("org.freedesktop.Notifications");
    }
    ~notification_server() override
    {
        bus_.unregisterService("org.freedesktop.Notifications");
        bus_.unregisterObject("/org/freedesktop/Notifications");
    }

    void invoke(uint id, const QString& action) { emit ActionInvoked(id, action); }
    void dismiss(uint id) { emit NotificationClosed(id, 2); }

    std::vector<notify_call> notified;
    std::vector<uint> closed;

public slots:
    QStringList GetCapabilities() { return capabilities_; }
    uint Notify(const QString& app_name, uint replaces_id, const QString& app_icon, const QString& summary,
                const QString& body, const QStringList& actions, const QVariantMap& hints, int expire_timeout)
    {
        notified.push_back({app_name, replaces_id, app_icon, summary, body, actions, hints, expire_timeout});
        return static_cast<uint>(notified.size()) + 100;
    }
    void CloseNotification(uint id)
    {
        closed.push_back(id);
        emit NotificationClosed(id, 3); // as servers do, also after an action
    }

signals:
    void ActionInvoked(uint id, const QString& action);
    void NotificationClosed(uint id, uint reason);

private:
    QDBusConnection bus_;
    QStringList capabilities_;
};

} // namespace orbweave::app
