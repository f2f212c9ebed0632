#include "ui/audio_alert.hpp"

#include "app/sound_settings.hpp"
#include "ui/icons.hpp"
#include "ui/popup.hpp"

#include <QGuiApplication>
#include <QHBoxLayout>
#include <QIcon>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QScreen>
#include <QShortcut>
#include <QVBoxLayout>

namespace orbweave::ui {

audio_alert::audio_alert(app::event_bus& bus, app::preferences& preferences, QAction* item,
                         std::function<QRect()> anchor)
    : bus_(bus), preferences_(preferences), item_(item), anchor_(std::move(anchor)), popup_(new QFrame)
{
    // A small panel of its own on top, shown without taking the keyboard from whatever
    // the user is doing; it has no frame, so it draws its own edge.
    popup_->setWindowFlags(Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
    popup_->setAttribute(Qt::WA_ShowWithoutActivating);
    popup_->setObjectName("audioAlertViewController");
    popup_->setWindowTitle(tr("Audio output"));
    popup_->setFrameShape(QFrame::StyledPanel);
    popup_->setAutoFillBackground(true);

    auto* icon = new QLabel;
    icon->setPixmap(themed_icon("dialog-warning", "app").pixmap(32, 32));
    icon->setAlignment(Qt::AlignTop);
    auto* title = new QLabel(tr("Orbweave can't capture your computer's sound"));
    QFont bold = title->font();
    bold.setBold(true);
    title->setFont(bold);
    auto* text = new QLabel(tr("Sound reaches the service only when the output device is “Orbweave Virtual "
                               "Audio Driver”. Choose it as the output in the sound settings; you will "
                               "still hear everything as before."));
    text->setWordWrap(true);
    text->setMinimumWidth(320);
    ignore_ = new QCheckBox(tr("Don't warn me when the output changes"));
    ignore_->setObjectName("ignoreAlertCheckbox");
    ignore_->setChecked(preferences_.ignore_audio_device_events());
    connect(ignore_, &QCheckBox::toggled, this,
            [this](bool checked) { preferences_.set_ignore_audio_device_events(checked); });
    auto* dismiss = new QPushButton(tr("Dismiss"));
    dismiss->setObjectName("dismissButton");
    connect(dismiss, &QPushButton::clicked, this, [this] { bus_.post(app::events::audio_popover_hide); });
    auto* open = new QPushButton(tr("Open sound settings"));
    open->setObjectName("openAudioSettingsButton");
    open->setDefault(true);
    connect(open, &QPushButton::clicked, this, [this] { bus_.post(app::events::audio_settings_show); });
    auto* escape = new QShortcut(QKeySequence(Qt::Key_Escape), popup_);
    connect(escape, &QShortcut::activated, this, [this] { bus_.post(app::events::audio_popover_hide); });

    auto* words = new QVBoxLayout;
    words->addWidget(title);
    words->addWidget(text);
    words->addWidget(ignore_);
    auto* top = new QHBoxLayout;
    top->addWidget(icon);
    top->addLayout(words, 1);
    auto* buttons = new QHBoxLayout;
    buttons->addStretch(1);
    buttons->addWidget(dismiss);
    buttons->addWidget(open);
    auto* layout = new QVBoxLayout(popup_);
    layout->setContentsMargins(14, 14, 14, 12);
    layout->addLayout(top);
    layout->addSpacing(6);
    layout->addLayout(buttons);
    popup_->setTabOrder(ignore_, dismiss);
    popup_->setTabOrder(dismiss, open);

    bus_.observe(app::events::audio_popover_hide, this, [this](const QVariant&) { popup_->hide(); });
    bus_.observe(app::events::audio_settings_show, this, [this](const QVariant&) { open_sound_settings(); });
}

audio_alert::~audio_alert()
{
    delete popup_;
    delete missing_message_;
}

void audio_alert::on_default_output(const QString& description)
{
    output_ = description;
    check(false);
}

void audio_alert::picked()
{
    check(true);
}

void audio_alert::check(bool picked)
{
    if (output_ != QLatin1String(virtual_output_description)) {
        item_->setText(tr("Audio Output (Not set!)"));
        if (!picked && preferences_.ignore_audio_device_events())
            return;
        show_popup(picked);
        return;
    }
    item_->setText(tr("Audio Output"));
    popup_->hide();
    if (picked)
        open_sound_settings();
}

void audio_alert::show_popup(bool picked)
{
    if (!popup_->isVisible()) {
        ignore_->setChecked(preferences_.ignore_audio_device_events());
        popup_->adjustSize();
        QRect anchor = anchor_ ? anchor_() : QRect();
        // The screen the icon is on, else the primary one.
        QScreen* screen = anchor.isValid() ? QGuiApplication::screenAt(anchor.center()) : nullptr;
        if (!screen)
            screen = QGuiApplication::primaryScreen();
        if (screen)
            popup_->move(popup_position(anchor, popup_->size(), screen->geometry(), screen->availableGeometry()));
        keep_out_of_task_bar(popup_);
        popup_->show();
    }
    // Asked for, it takes the keyboard; shown by itself, it leaves it where it is.
    if (picked) {
        popup_->raise();
        popup_->activateWindow();
    }
}

void audio_alert::open_sound_settings()
{
    if (app::open_sound_settings())
        return;
    if (missing_message_) {
        missing_message_->raise();
        missing_message_->activateWindow();
        return;
    }
    auto* message = new QMessageBox(QMessageBox::Information, tr("Sound settings"), app::sound_settings_missing_text(),
                                    QMessageBox::Ok);
    message->setObjectName("soundSettingsMissing");
    message->setAttribute(Qt::WA_DeleteOnClose);
    message->setModal(false);
    missing_message_ = message;
    message->show();
}

} // namespace orbweave::ui
