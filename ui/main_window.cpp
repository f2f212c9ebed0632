#include "ui/main_window.hpp"

#include "ui/activity_view.hpp"
#include "ui/avatar_loader.hpp"
#include "ui/icons.hpp"
#include "ui/link_button.hpp"

#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QFontDatabase>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QToolButton>
#include <QVBoxLayout>

namespace orbweave::ui {

using callback::source_type;
using callback::state_type;

QString view_for_state(state_type::type state, bool has_set_permissions)
{
    switch (state) {
    case state_type::pairing: return has_set_permissions ? "readyViewController" : "setupViewController";
    case state_type::connected: return has_set_permissions ? "readyViewController" : "permissionsViewController";
    case state_type::disconnected: return "disconnectedViewController";
    case state_type::streaming: break;
    }
    return {};
}

namespace {

constexpr int window_width = 420;

QProgressBar* busy_indicator(const QString& accessible_name)
{
    auto* busy = new QProgressBar;
    busy->setRange(0, 0); // indeterminate: a moving bar
    busy->setTextVisible(false);
    busy->setMaximumHeight(8);
    busy->setMaximumWidth(240);
    busy->setAccessibleName(accessible_name);
    return busy;
}

QLabel* heading(const QString& text)
{
    auto* label = new QLabel(text);
    label->setWordWrap(true);
    label->setAlignment(Qt::AlignCenter);
    QFont font = label->font();
    font.setWeight(QFont::DemiBold);
    font.setPointSizeF(font.pointSizeF() * 1.15);
    label->setFont(font);
    return label;
}

/// A line of secondary text under a heading.
QLabel* hint(const QString& text)
{
    auto* label = new QLabel(text);
    label->setWordWrap(true);
    label->setAlignment(Qt::AlignCenter);
    label->setForegroundRole(QPalette::PlaceholderText);
    return label;
}

/// What a permission rule (the choice's index: Ask, Deny, Always allow) lets the service do.
QString rule_meaning(int rule)
{
    switch (static_cast<app::permission>(rule)) {
    case app::permission::ask:
        return QCoreApplication::translate("orbweave::ui::main_window", "Listed freely; each stream asks you first.");
    case app::permission::deny:
        return QCoreApplication::translate("orbweave::ui::main_window", "Never listed, never streamed.");
    case app::permission::always_allow:
        return QCoreApplication::translate("orbweave::ui::main_window", "Listed and streamed without asking you.");
    }
    return {};
}

/// Every view's layout: the same margins and spacing.
QVBoxLayout* view_layout(QWidget* view)
{
    auto* layout = new QVBoxLayout(view);
    layout->setContentsMargins(24, 20, 24, 20);
    layout->setSpacing(12);
    return layout;
}

} // namespace

main_window::main_window(app::event_bus& bus, app::preferences& preferences, std::function<QString()> current_code,
                         QMenu* tray_menu)
    : bus_(bus), preferences_(preferences), current_code_(std::move(current_code))
{
    setObjectName("mainWindow");
    setWindowTitle("Orbweave");
    setWindowFlag(Qt::WindowStaysOnTopHint);
    setFixedWidth(window_width);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    if (tray_menu) {
        // No tray on this desktop: the tray's menu lives here.
        auto* menu_button = new QToolButton;
        menu_button->setObjectName("menuButton");
        menu_button->setAccessibleName(tr("Menu"));
        menu_button->setIcon(QIcon::fromTheme("open-menu-symbolic", QIcon::fromTheme("application-menu")));
        menu_button->setText(tr("Menu"));
        menu_button->setPopupMode(QToolButton::InstantPopup);
        menu_button->setMenu(tray_menu);
        auto* bar = new QHBoxLayout;
        bar->addStretch();
        bar->addWidget(menu_button);
        layout->addLayout(bar);
    }
    stack_ = new QStackedLayout;
    layout->addLayout(stack_);
    show_view("disconnectedViewController");

    bus_.observe(app::events::window_show, this, [this](const QVariant&) { bring_up(); });
    bus_.observe(app::events::window_hide, this, [this](const QVariant&) { close(); });
    bus_.observe(app::events::view_show, this, [this](const QVariant& identifier) { show_view(identifier.toString()); });
    bus_.observe(app::events::permissions_changed, this, [this](const QVariant&) { show_view("readyViewController"); });
    bus_.observe(app::events::state_changed, this, [this](const QVariant& state) {
        // Signing out ends in the setup view, quitting in no view: the states on the way
        // leave the busy view alone.
        if (activity_ != app::activity::none)
            return;
        QString next = view_for_state(state.value<state_type::type>(), preferences_.has_set_permissions());
        if (!next.isEmpty())
            show_view(next);
    });
    bus_.observe(app::events::activity_changed, this, [this](const QVariant& now) {
        activity_ = now.value<app::activity>();
        if (activity_ != app::activity::none)
            show_view("disconnectedViewController");
    });
}

void main_window::bring_up()
{
    show();
    raise();
    activateWindow();
}

void main_window::show_at_start()
{
    if (preferences_.username().isEmpty())
        bring_up();
}

void main_window::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_Escape) {
        close(); // the app lives on in the tray
        return;
    }
    QWidget::keyPressEvent(event);
}

void main_window::show_view(const QString& identifier)
{
    QWidget* fresh = make_view(identifier);
    if (!fresh)
        return;
    fresh->setObjectName(identifier);
    if (view_) {
        stack_->removeWidget(view_);
        view_->deleteLater();
    }
    view_ = fresh;
    stack_->addWidget(fresh);
    stack_->setCurrentWidget(fresh);
    // Exactly as large as the view needs: a window of fixed size gets no resize handle from
    // the window manager (a stray bar with grips under the view otherwise).
    setFixedSize(window_width, layout()->hasHeightForWidth() ? layout()->totalHeightForWidth(window_width)
                                                             : layout()->totalSizeHint().height());
}

QWidget* main_window::make_view(const QString& identifier)
{
    if (identifier == "disconnectedViewController")
        return make_disconnected_view();
    if (identifier == "setupViewController")
        return make_setup_view();
    if (identifier == "permissionsViewController")
        return make_permissions_view();
    if (identifier == "readyViewController")
        return make_ready_view();
    if (identifier == "activityViewController")
        return make_activity_view(history_, [this] { bus_.post(app::events::window_hide); });
    return nullptr;
}

QWidget* main_window::make_disconnected_view()
{
    auto* view = new QWidget;
    auto* layout = view_layout(view);
    switch (activity_) {
    case app::activity::signing_out: layout->addWidget(heading(tr("Signing out…"))); break;
    case app::activity::stopping: layout->addWidget(heading(tr("Stopping…"))); break;
    case app::activity::none: layout->addWidget(heading(tr("Connecting to the service…"))); break;
    }
    layout->addWidget(busy_indicator(tr("Working")), 0, Qt::AlignCenter);
    if (activity_ == app::activity::none)
        layout->addWidget(hint(tr("You can close this window: Orbweave keeps trying in the background.")));
    return view;
}

QWidget* main_window::make_setup_view()
{
    auto* view = new QWidget;
    auto* layout = view_layout(view);
    layout->addWidget(heading(tr("Enter this code on the service")));
    layout->addWidget(hint(tr("It connects this computer to your account.")));
    auto* code = new QLabel;
    code->setObjectName("codeTextField");
    code->setAccessibleName(tr("Pairing code"));
    code->setAlignment(Qt::AlignCenter);
    code->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    QFont large = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    large.setPointSize(large.pointSize() * 2 + 4);
    code->setFont(large);
    auto* waiting = busy_indicator(tr("Working"));
    auto* copy = new QPushButton(tr("Copy code"));
    copy->setObjectName("codeCopyButton");
    copy->setAccessibleName(tr("Copy code"));
    copy->setDefault(true);
    layout->addWidget(code);
    layout->addWidget(waiting, 0, Qt::AlignCenter);
    layout->addWidget(copy, 0, Qt::AlignCenter);
    auto set_code = [code, waiting, copy](const QString& text) {
        code->setText(text);
        // A screen reader speaks the description: the code itself.
        code->setAccessibleDescription(text);
        waiting->setVisible(text.isEmpty());
        copy->setEnabled(!text.isEmpty());
    };
    set_code(current_code_());
    bus_.observe(app::events::code_changed, view, [set_code](const QVariant& value) { set_code(value.toString()); });
    connect(copy, &QPushButton::clicked, view, [code] { QApplication::clipboard()->setText(code->text()); });
    return view;
}

QWidget* main_window::make_permissions_view()
{
    auto* view = new QWidget;
    auto* layout = view_layout(view);
    layout->addWidget(heading(tr("What may the service use on this computer?")));
    layout->addWidget(hint(tr("“Ask” shows a notification each time it is needed.")));
    struct row {
        source_type::type kind;
        const char* theme_icon;
        const char* builtin_icon;
        const char* label;
        const char* accessible;
        const char* object;
    };
    const row rows[] = {
        {source_type::screen, "video-display", "source-display", QT_TR_NOOP("Displays"), QT_TR_NOOP("Display permission"), "comboPermissionDisplay"},
        {source_type::window, "window-new", "source-window", QT_TR_NOOP("Windows"), QT_TR_NOOP("Window permission"), "comboPermissionWindow"},
        {source_type::audio, "audio-input-microphone", "source-audio", QT_TR_NOOP("Audio devices"), QT_TR_NOOP("Audio permission"), "comboPermissionAudio"},
        {source_type::video, "camera-web", "source-camera", QT_TR_NOOP("Cameras"), QT_TR_NOOP("Camera permission"), "comboPermissionVideo"},
    };
    for (const row& r : rows) {
        auto* line = new QHBoxLayout;
        auto* icon = new QLabel;
        icon->setPixmap(themed_icon(r.theme_icon, r.builtin_icon).pixmap(24));
        auto* label = new QLabel(tr(r.label));
        auto* choice = new QComboBox;
        choice->setObjectName(r.object);
        choice->setAccessibleName(tr(r.accessible));
        choice->addItems({tr("Ask"), tr("Deny"), tr("Always allow")});
        choice->setCurrentIndex(static_cast<int>(preferences_.permission_value(r.kind)));
        label->setBuddy(choice);
        // What the chosen rule means, in one line under the choice.
        auto* meaning = hint(rule_meaning(choice->currentIndex()));
        meaning->setObjectName(QString(r.object) + "Meaning");
        meaning->setAlignment(Qt::AlignRight);
        choice->setAccessibleDescription(meaning->text());
        connect(choice, qOverload<int>(&QComboBox::currentIndexChanged), view,
                [this, kind = r.kind, choice, meaning](int index) {
                    preferences_.set_permission(kind, static_cast<unsigned>(index));
                    meaning->setText(rule_meaning(index));
                    choice->setAccessibleDescription(meaning->text());
                });
        line->addWidget(icon);
        line->addWidget(label, 1);
        line->addWidget(choice);
        layout->addLayout(line);
        layout->addWidget(meaning);
    }
    bool set = preferences_.has_set_permissions();
    auto* next = new QPushButton(set ? tr("Done") : tr("Continue"));
    next->setObjectName(set ? "buttonDone" : "buttonContinue");
    next->setAccessibleName(next->text());
    next->setDefault(true);
    layout->addWidget(next, 0, Qt::AlignRight);
    connect(next, &QPushButton::clicked, view, [this, set] {
        if (set) {
            bus_.post(app::events::window_hide);
            return;
        }
        preferences_.set_has_set_permissions(true);
        bus_.post(app::events::permissions_changed);
    });
    return view;
}

QWidget* main_window::make_ready_view()
{
    auto* view = new QWidget;
    auto* layout = view_layout(view);
    auto* avatar = new QLabel;
    avatar->setObjectName("avatarImageView");
    avatar->setAccessibleName(tr("Avatar"));
    avatar->setPixmap(themed_icon("avatar-default", "app").pixmap(64));
    avatar->setAlignment(Qt::AlignCenter);
    auto* username = new QLabel;
    username->setObjectName("usernameTextField");
    username->setAccessibleName(tr("Username"));
    username->setAlignment(Qt::AlignCenter);
    auto* done = new QPushButton(tr("Done"));
    done->setObjectName("buttonDone");
    done->setAccessibleName(tr("Done"));
    done->setDefault(true);
    auto* permissions = new link_button(tr("Change what the service may use…"));
    permissions->setObjectName("permissionsLink");
    connect(permissions, &QPushButton::clicked, view,
            [this] { bus_.post(app::events::view_show, QStringLiteral("permissionsViewController")); });
    layout->addWidget(heading(tr("This computer is connected to your account.")));
    layout->addWidget(avatar);
    layout->addWidget(username);
    layout->addWidget(permissions, 0, Qt::AlignCenter);
    layout->addWidget(done, 0, Qt::AlignRight);
    QWidget::setTabOrder(permissions, done);
    auto* loader = new avatar_loader(view);
    auto update = [this, username, avatar, loader] {
        username->setText(preferences_.username());
        username->setAccessibleDescription(preferences_.username());
        // The placeholder stays until (and unless) the picture arrives.
        loader->load(preferences_.avatar(), 64, [avatar](const QPixmap& picture) {
            if (!picture.isNull())
                avatar->setPixmap(picture);
        });
    };
    update();
    bus_.observe(app::events::user_changed, view, [update](const QVariant&) { update(); });
    connect(done, &QPushButton::clicked, view, [this] { bus_.post(app::events::window_hide); });
    return view;
}

} // namespace orbweave::ui
