#pragma once

// A stand-in for the desktop panel's StatusNotifierWatcher on a test bus: with it, a
// Qt program's tray icon registers as a StatusNotifierItem, and its menu can be read
// (com.canonical.dbusmenu GetLayout) and clicked (Event) the way a panel does.

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

#include <optional>
#include <vector>

namespace orbweave::app {

class status_notifier_watcher : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ items)
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ host_registered)
    Q_PROPERTY(int ProtocolVersion READ protocol_version)

public:
    explicit status_notifier_watcher(QDBusConnection bus) : bus_(std::move(bus))
    {
        bus_.registerObject("/StatusNotifierWatcher", this,
                            QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals |
                                QDBusConnection::ExportAllProperties);
        bus_.registerService("org.kde.StatusNotifierWatcher");
    }
    ~status_notifier_watcher() override
    {
        bus_.unregisterService("org.kde.StatusNotifierWatcher");
        bus_.unregisterObject("/StatusNotifierWatcher");
    }

    /// A registered item: the bus name to reach it at and its object path.
    struct item {
        QString service;
        QString path;
    };
    std::vector<item> registered;

    QStringList items() const
    {
        QStringList names;
        for (const auto& entry : registered)
            names << entry.service + entry.path;
        return names;
    }
    bool host_registered() const { return true; }
    int protocol_version() const { return 0; }

public slots:
    void RegisterStatusNotifierItem(const QString& service_or_path)
    {
        // Items name either their bus name (then at the standard path) or an object path
        // on the caller's connection.
        if (service_or_path.startsWith('/'))
            registered.push_back({message().service(), service_or_path});
        else
            registered.push_back({service_or_path, "/StatusNotifierItem"});
        emit StatusNotifierItemRegistered(registered.back().service + registered.back().path);
    }
    void RegisterStatusNotifierHost(const QString&) {}

signals:
    void StatusNotifierItemRegistered(const QString& item);
    void StatusNotifierItemUnregistered(const QString& item);
    void StatusNotifierHostRegistered();

private:
    QDBusConnection bus_;
};

/// One entry of an exported menu, as GetLayout gives it.
struct menu_entry {
    int id = 0;
    QVariantMap properties;
    std::vector<menu_entry> children;

    QString label() const { return properties.value("label").toString(); }
    bool visible() const { return properties.value("visible", true).toBool(); }
    bool enabled() const { return properties.value("enabled", true).toBool(); }
    bool separator() const { return properties.value("type").toString() == "separator"; }

    /// The entry labelled so, at any depth.
    const menu_entry* find(const QString& wanted) const
    {
        if (label() == wanted)
            return this;
        for (const auto& child : children)
            if (const menu_entry* found = child.find(wanted))
                return found;
        return nullptr;
    }
    /// The labels of the visible entries directly under this one, separators left out.
    QStringList visible_labels() const
    {
        QStringList labels;
        for (const auto& child : children)
            if (child.visible() && !child.separator())
                labels << child.label();
        return labels;
    }
};

inline menu_entry read_menu_entry(const QDBusArgument& argument)
{
    menu_entry entry;
    argument.beginStructure();
    argument >> entry.id >> entry.properties;
    argument.beginArray();
    while (!argument.atEnd()) {
        QDBusVariant child;
        argument >> child;
        entry.children.push_back(read_menu_entry(qvariant_cast<QDBusArgument>(child.variant())));
    }
    argument.endArray();
    argument.endStructure();
    return entry;
}

/// The whole menu an item exports at menu_path; none when the call fails.
inline std::optional<menu_entry> read_menu(QDBusConnection bus, const QString& service, const QString& menu_path)
{
    QDBusMessage call = QDBusMessage::createMethodCall(service, menu_path, "com.canonical.dbusmenu", "GetLayout");
    call << 0 << -1 << QStringList();
    QDBusMessage reply = bus.call(call, QDBus::Block, 5000);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() != 2)
        return std::nullopt;
    return read_menu_entry(qvariant_cast<QDBusArgument>(reply.arguments().at(1)));
}

/// What a panel sends when the user clicks an entry.
inline bool click_menu_entry(QDBusConnection bus, const QString& service, const QString& menu_path, int id)
{
    QDBusMessage call = QDBusMessage::createMethodCall(service, menu_path, "com.canonical.dbusmenu", "Event");
    call << id << QString("clicked") << QVariant::fromValue(QDBusVariant(QString())) << 0u;
    return bus.call(call, QDBus::Block, 5000).type() == QDBusMessage::ReplyMessage;
}

} // namespace orbweave::app
