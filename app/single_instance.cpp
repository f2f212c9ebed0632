#include "app/single_instance.hpp"

#include "core/log.hpp"

#include <QDBusConnectionInterface>
#include <QDBusMessage>

namespace orbweave::app {

namespace {
const QString name = QStringLiteral("org.orbweave.Client");
const QString path = QStringLiteral("/org/orbweave/Client");
} // namespace

single_instance::single_instance(event_bus& bus, QDBusConnection connection)
    : bus_(bus), connection_(std::move(connection))
{
    if (!connection_.isConnected()) {
        log::line("No session bus: more than one Orbweave may run at a time");
        return;
    }
    connection_.registerObject(path, this, QDBusConnection::ExportAllSlots);
    if (connection_.registerService(name)) {
        role_ = role::first;
        return;
    }
    connection_.unregisterObject(path);
    role_ = role::second;
    QDBusMessage activate = QDBusMessage::createMethodCall(name, path, "org.freedesktop.Application", "Activate");
    activate << QVariantMap();
    connection_.call(activate, QDBus::Block, 5000);
}

single_instance::~single_instance()
{
    if (role_ == role::first) {
        connection_.unregisterService(name);
        connection_.unregisterObject(path);
    }
}

void single_instance::Activate(const QVariantMap&)
{
    log::line("Activated by another launch");
    bus_.post(events::window_show);
}

void single_instance::Open(const QStringList&, const QVariantMap&)
{
    bus_.post(events::window_show);
}

void single_instance::ActivateAction(const QString&, const QVariantList&, const QVariantMap&)
{
    bus_.post(events::window_show);
}

} // namespace orbweave::app
