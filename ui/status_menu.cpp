#include "ui/status_menu.hpp"

#include "ui/icons.hpp"

#include <algorithm>

#include <QActionGroup>
#include <QLocale>
#include <QApplication>
#include <QCoreApplication>
#include <QCursor>
#include <QGuiApplication>
#include <QIcon>
#include <QMessageBox>
#include <QPushButton>
#include <QStringList>

namespace orbweave::ui {

namespace {

constexpr int blink_frames = 8;
constexpr int blink_interval_ms = 200;

using callback::state_type;


QString state_text(state_type::type state)
{
    switch (state) {
    case state_type::pairing: return QCoreApplication::translate("orbweave::ui::status_menu", "Waiting for pairing");
    case state_type::connected: return QCoreApplication::translate("orbweave::ui::status_menu", "Connected");
    case state_type::disconnected: return QCoreApplication::translate("orbweave::ui::status_menu", "Offline");
    case state_type::streaming: return QCoreApplication::translate("orbweave::ui::status_menu", "Streaming");
    }
    return {};
}

/// "Screen: Built-in display", "Window: <its title>", ...: the source as the user knows it.
QString stream_title(const callback::active_stream& stream)
{
    constexpr int longest = 60;
    QString name = QString::fromStdString(stream.name);
    QString what;
    switch (stream.kind) {
    case callback::source_type::screen: what = QCoreApplication::translate("orbweave::ui::status_menu", "Screen: %1"); break;
    case callback::source_type::window:
        // A window is known by its title; its name is the program's class.
        if (!stream.description.empty())
            name = QString::fromStdString(stream.description);
        what = QCoreApplication::translate("orbweave::ui::status_menu", "Window: %1");
        break;
    case callback::source_type::audio: what = QCoreApplication::translate("orbweave::ui::status_menu", "Audio: %1"); break;
    case callback::source_type::video: what = QCoreApplication::translate("orbweave::ui::status_menu", "Camera: %1"); break;
    default: what = QStringLiteral("%1"); break;
    }
    if (name.size() > longest)
        name = name.left(longest - 1) + QStringLiteral("…");
    // A title is a window's own text: keep it from posing as a mnemonic.
    name.replace('&', QStringLiteral("&&"));
    return what.arg(name);
}

/// A bitrate as people read it: "850 kb/s", "1.5 Mb/s".
QString rate_text(int kbps)
{
    if (kbps < 1000)
        return QCoreApplication::translate("orbweave::ui::status_menu", "%1 kb/s").arg(kbps);
    return QCoreApplication::translate("orbweave::ui::status_menu", "%1 Mb/s")
        .arg(QLocale().toString(kbps / 1000.0, 'f', 1));
}

/// A stream's health in a few words: its bitrate while all is well, else what is wrong.
QString health_text(const obs::health_summary& health)
{
    using obs::health_level;
    switch (health.level) {
    case health_level::good: return rate_text(health.kbps);
    case health_level::reconnecting: return QCoreApplication::translate("orbweave::ui::status_menu", "reconnecting…");
    case health_level::degraded:
    case health_level::bad: break;
    }
    if (health.connection == obs::connection_state::stalled)
        return QCoreApplication::translate("orbweave::ui::status_menu", "not sending");
    // Frames lost on the way (the network) or before the encoder (this computer too busy).
    if (health.lost_share >= 0.05 || !health.slow)
        return health.dropped >= health.lagged
                   ? QCoreApplication::translate("orbweave::ui::status_menu", "dropping frames")
                   : QCoreApplication::translate("orbweave::ui::status_menu", "skipping frames");
    return QCoreApplication::translate("orbweave::ui::status_menu", "slow connection");
}

/// The installed theme icon, so a panel can draw it at its own size; the built-in copy
/// where it is not installed.
QIcon image_icon(const QString& name)
{
    if (name.isEmpty())
        return QIcon();
    return themed_icon("org.orbweave.Client-" + name, name);
}

} // namespace

status_menu::status_menu(app::event_bus& bus, app::preferences& preferences, app::autostart& launch_at_login,
                         std::function<void()> sign_out, std::function<void()> quit)
    : bus_(bus), preferences_(preferences), launch_at_login_(launch_at_login), sign_out_(std::move(sign_out)),
      quit_(std::move(quit)),
      animator_(blink_frames, blink_interval_ms, [this](int frame) {
          // Odd frames show the connected image, even ones the active image: a blink that
          // ends on active.
          show_image(frame % 2 ? "connected" : streaming_image());
      })
{
    // Titles without "&": an exported tray menu would show it as "_".
    connect_item = menu_.addAction(tr("Connect your computer…"), this, [this] { bus_.post(app::events::window_show); });
    username_item = menu_.addAction(QString(), this, [this] { show_view("readyViewController"); });
    permissions_item = menu_.addAction(tr("Permissions…"), this, [this] { show_view("permissionsViewController"); });
    activity_item = menu_.addAction(tr("Activity…"), this, [this] { show_view("activityViewController"); });
    forget_choices_item =
        menu_.addAction(tr("Forget screen choices"), this, [this] { bus_.post(app::events::forget_choices); });
    quality_menu = menu_.addMenu(tr("Quality"));
    const char* levels[] = {QT_TR_NOOP("Low"), QT_TR_NOOP("Medium"), QT_TR_NOOP("High"), QT_TR_NOOP("Extreme")};
    // One level at a time: radio items, which panels draw as such.
    auto* exclusive = new QActionGroup(quality_menu);
    // Optional: a level stored outside 0..3 ticks none.
    exclusive->setExclusionPolicy(QActionGroup::ExclusionPolicy::ExclusiveOptional);
    for (unsigned level = 0; level < profile_items.size(); ++level) {
        profile_items[level] = quality_menu->addAction(tr(levels[level]), this, [this, level] { set_profile(level); });
        profile_items[level]->setCheckable(true);
        exclusive->addAction(profile_items[level]);
    }
    launch_at_login_item = menu_.addAction(tr("Launch at login"), this, [this] {
        launch_at_login_.set_enabled(!launch_at_login_.enabled());
        launch_at_login_item->setChecked(launch_at_login_.enabled());
    });
    launch_at_login_item->setCheckable(true);
    audio_output_item = menu_.addAction(tr("Audio Output"), this, [this] { audio_->picked(); });
    stop_streaming_item = menu_.addAction(tr("Stop streaming"), this, [this] { bus_.post(app::events::deactivate); });
    state_item = menu_.addAction(state_text(client_state_));
    state_item->setEnabled(false);
    separator_item = menu_.addSeparator();
    sign_out_item = menu_.addAction(tr("Sign out"), this, [this] { confirm_sign_out(); });
    quit_item = menu_.addAction(tr("Quit"), this, [this] { quit_(); });

    tray_.setContextMenu(&menu_);
    connect(&tray_, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        note_click();
        if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick)
            bus_.post(app::events::window_show);
    });
    // A panel that shows the exported menu itself still asks for it first.
    connect(&menu_, &QMenu::aboutToShow, this, [this] { note_click(); });

    audio_ = std::make_unique<audio_alert>(bus_, preferences_, audio_output_item, [this] { return anchor(); });

    bus_.observe(app::events::state_changed, this,
                 [this](const QVariant& state) { on_state(state.value<state_type::type>()); });
    bus_.observe(app::events::streams_changed, this,
                 [this](const QVariant& streams) { on_streams(streams.value<app::stream_list>()); });
    bus_.observe(app::events::stream_health_changed, this,
                 [this](const QVariant& report) { on_health(report.value<app::stream_health>()); });
    bus_.observe(app::events::activity_changed, this,
                 [this](const QVariant& now) { on_activity(now.value<app::activity>()); });
    bus_.observe(app::events::user_changed, this, [this](const QVariant&) { update_from_preferences(); });
    bus_.observe(app::events::launch_at_login_changed, this,
                 [this](const QVariant&) { launch_at_login_item->setChecked(launch_at_login_.enabled()); });
    // Choosing the permissions is the moment the app starts to be part of the user's session.
    bus_.observe(app::events::permissions_changed, this, [this](const QVariant&) {
        launch_at_login_.set_enabled(true);
    });

    update_from_preferences();
    on_state(client_state_);
}

void status_menu::note_click()
{
    // A StatusNotifierItem host gives Qt the click's position but Qt keeps it to itself; on
    // X11 the pointer is still where the user clicked. Elsewhere the pointer is unknown.
    if (QGuiApplication::platformName() == QLatin1String("xcb"))
        clicked_ = QCursor::pos();
}

QRect status_menu::anchor() const
{
    QRect icon = tray_.geometry(); // an XEmbed tray tells it
    if (icon.isValid() && !icon.isEmpty())
        return icon;
    return clicked_ ? QRect(*clicked_, QSize(1, 1)) : QRect();
}

bool status_menu::show_in_tray()
{
    if (!QSystemTrayIcon::isSystemTrayAvailable())
        return false;
    tray_.show();
    return true;
}

void status_menu::show_view(const char* identifier)
{
    bus_.post(app::events::view_show, QString::fromLatin1(identifier));
    bus_.post(app::events::window_show);
}

void status_menu::update_from_preferences()
{
    set_profile(preferences_.profile());
    launch_at_login_item->setChecked(launch_at_login_.enabled());
    QString username = preferences_.username();
    bool signed_in = !username.isEmpty();
    connect_item->setVisible(!signed_in);
    username_item->setText(username);
    for (QAction* item : {username_item, permissions_item, activity_item, forget_choices_item,
                          quality_menu->menuAction(), sign_out_item})
        item->setVisible(signed_in);
}

void status_menu::on_streams(const app::stream_list& streams)
{
    for (QAction* item : stream_items)
        delete item;
    stream_items.clear();
    streams_ = streams;
    // A stream that no longer runs takes its health with it.
    for (auto it = health_.begin(); it != health_.end();) {
        bool runs = std::any_of(streams.begin(), streams.end(),
                                [&](const callback::active_stream& stream) { return stream.id == it->first; });
        it = runs ? std::next(it) : health_.erase(it);
    }
    for (std::size_t i = 0; i < streams.size(); ++i) {
        auto* item = new QAction(&menu_);
        item->setEnabled(false);
        item->setVisible(client_state_ == state_type::streaming);
        menu_.insertAction(separator_item, item);
        stream_items.push_back(item);
    }
    show_health();
}

void status_menu::on_health(const app::stream_health& report)
{
    bool runs = std::any_of(streams_.begin(), streams_.end(),
                            [&](const callback::active_stream& stream) { return stream.id == report.id; });
    if (!runs)
        return;
    auto known = health_.find(report.id);
    if (known != health_.end() && known->second == report.health)
        return;
    health_[report.id] = report.health;
    show_health();
}

QString status_menu::streaming_image() const
{
    bool trouble = std::any_of(health_.begin(), health_.end(),
                               [](const auto& item) { return item.second.level != obs::health_level::good; });
    return trouble ? QStringLiteral("warning") : QStringLiteral("active");
}

void status_menu::show_health()
{
    for (std::size_t i = 0; i < streams_.size() && i < stream_items.size(); ++i) {
        QString line = stream_title(streams_[i]);
        auto health = health_.find(streams_[i].id);
        if (health != health_.end())
            line += QStringLiteral(" · ") + health_text(health->second);
        stream_items[i]->setText(line);
    }
    show_state_line();
    if (client_state_ == state_type::streaming && !animator_.running() && image_ != streaming_image())
        show_image(streaming_image());
}

void status_menu::confirm_sign_out()
{
    if (client_state_ != state_type::streaming)
        return sign_out_();
    auto* question = new QMessageBox(QMessageBox::Question, tr("Sign out?"),
                                     tr("Signing out stops every stream now."), QMessageBox::NoButton);
    question->setObjectName("signOutConfirmation");
    question->setAttribute(Qt::WA_DeleteOnClose);
    question->setWindowModality(Qt::NonModal);
    QPushButton* sign_out = question->addButton(tr("Sign out"), QMessageBox::AcceptRole);
    question->addButton(tr("Cancel"), QMessageBox::RejectRole);
    question->setDefaultButton(sign_out);
    connect(question, &QMessageBox::finished, this, [this, question, sign_out] {
        if (question->clickedButton() == sign_out)
            sign_out_();
    });
    question->show();
}

void status_menu::set_profile(unsigned level)
{
    for (unsigned i = 0; i < profile_items.size(); ++i)
        profile_items[i]->setChecked(i == level);
    if (preferences_.profile() != level)
        preferences_.set_profile(level);
}

void status_menu::on_activity(app::activity now)
{
    activity_ = now;
    bool busy = now != app::activity::none;
    sign_out_item->setEnabled(!busy);
    quit_item->setEnabled(now != app::activity::stopping);
    show_state_line();
}

void status_menu::show_state_line()
{
    switch (activity_) {
    case app::activity::signing_out: state_item->setText(tr("Signing out…")); break;
    case app::activity::stopping: state_item->setText(tr("Stopping…")); break;
    case app::activity::none: state_item->setText(state_text(client_state_)); break;
    }
    QString tip = state_item->text().isEmpty() ? tr("Orbweave") : tr("Orbweave") + " — " + state_item->text();
    // While streaming, the streams' health summed up: what is wrong, else what is sent.
    if (activity_ == app::activity::none && client_state_ == state_type::streaming && !health_.empty()) {
        QStringList troubles;
        int kbps = 0;
        for (const auto& stream : streams_) {
            auto health = health_.find(stream.id);
            if (health == health_.end())
                continue;
            kbps += health->second.kbps;
            if (health->second.level != obs::health_level::good)
                troubles << QStringLiteral("%1: %2").arg(QString::fromStdString(stream.name), health_text(health->second));
        }
        tip += QStringLiteral(" · ") +
               (troubles.isEmpty() ? tr("%1 sent").arg(rate_text(kbps)) : troubles.join(QStringLiteral("; ")));
    }
    // Health comes every second: a panel hears of the tooltip only when its text changes.
    if (tray_.toolTip() != tip)
        tray_.setToolTip(tip);
}

void status_menu::on_state(state_type::type state)
{
    bool streaming = state == state_type::streaming;
    stop_streaming_item->setVisible(streaming);
    for (QAction* item : stream_items)
        item->setVisible(streaming);

    bool animate = streaming && client_state_ != state_type::streaming;
    QString image;
    if (state == state_type::pairing || state == state_type::disconnected)
        image = "disconnected";
    else if (state == state_type::connected)
        image = "connected";
    else if (streaming)
        image = streaming_image();
    client_state_ = state;
    show_state_line();
    if (animate) {
        animator_.start();
        return;
    }
    animator_.stop();
    show_image(image);
}

void status_menu::show_image(const QString& name)
{
    image_ = name;
    QIcon icon = image_icon(name);
    tray_.setIcon(icon);
    // The application's own icon follows, so the window's frame and task bar show the state too.
    QApplication::setWindowIcon(name.isEmpty() ? themed_icon("org.orbweave.Client", "app") : icon);
}

} // namespace orbweave::ui
