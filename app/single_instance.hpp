#pragma once

// One app per user session: the running app owns the session-bus name
// org.orbweave.Client and answers org.freedesktop.Application; a second launch
// asks the first to show itself (Activate) and ends.

#include "app/event_bus.hpp"

#include <QDBusConnection>
#include <QObject>
#include <QVariantMap>

namespace orbweave::app {

class single_instance : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Application")

public:
    enum class role { first, second, unguarded };

    /// Claims the name on bus. When another instance holds it, asks it to show its window.
    single_instance(event_bus& bus, QDBusConnection connection = QDBusConnection::sessionBus());
    ~single_instance() override;

    /// first: this one owns the name; second: another one does and was activated;
    /// unguarded: no session bus answers (logged), so this one runs alone regardless.
    role started_as() const { return role_; }

public slots:
    // org.freedesktop.Application
    void Activate(const QVariantMap& platform_data);
    void Open(const QStringList& uris, const QVariantMap& platform_data);
    void ActivateAction(const QString& action, const QVariantList& parameter, const QVariantMap& platform_data);

private:
    event_bus& bus_;
    QDBusConnection connection_;
    role role_ = role::unguarded;
};

} // namespace orbweave::app
