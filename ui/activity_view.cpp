#include "ui/activity_view.hpp"

#include <QCoreApplication>
#include <QtCore/qcoreapplication.h>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QLocale>
#include <QPushButton>
#include <QVBoxLayout>

#include <cmath>

namespace orbweave::ui {

namespace {

/// The view's texts, in their own translation context.
struct texts {
    Q_DECLARE_TR_FUNCTIONS(orbweave::ui::activity_view)
};

/// "the screen “Display 1”", or the kind alone when the source has no name.
QString what(const app::history_entry& entry)
{
    bool named = !entry.source.isEmpty();
    QString text;
    if (entry.kind == "screen")
        text = named ? texts::tr("the screen “%1”") : texts::tr("a screen");
    else if (entry.kind == "window")
        text = named ? texts::tr("the window “%1”") : texts::tr("a window");
    else if (entry.kind == "audio")
        text = named ? texts::tr("the audio device “%1”") : texts::tr("an audio device");
    else if (entry.kind == "video")
        text = named ? texts::tr("the camera “%1”") : texts::tr("a camera");
    else
        text = named ? QStringLiteral("“%1”") : texts::tr("a source");
    return named ? text.arg(entry.source) : text;
}

QString kinds(const QString& kind)
{
    if (kind == "screen")
        return texts::tr("screens");
    if (kind == "window")
        return texts::tr("windows");
    if (kind == "audio")
        return texts::tr("audio devices");
    if (kind == "video")
        return texts::tr("cameras");
    return texts::tr("sources");
}

QString how_long(double seconds)
{
    long whole = std::lround(seconds);
    if (whole < 60)
        return texts::tr("%1 s").arg(whole);
    if (whole < 3600)
        return texts::tr("%1 min %2 s").arg(whole / 60).arg(whole % 60);
    return texts::tr("%1 h %2 min").arg(whole / 3600).arg(whole % 3600 / 60);
}

QString who(const app::history_entry& entry)
{
    if (entry.decided == "rule")
        return texts::tr("by your permission settings");
    if (entry.decided == "user")
        return texts::tr("by you");
    return {};
}

QString sentence(const app::history_entry& entry)
{
    const QString& event = entry.event;
    QString by = who(entry);
    auto with_who = [&by](QString text) { return by.isEmpty() ? text : texts::tr("%1, %2").arg(text, by); };
    QString took = entry.duration ? how_long(*entry.duration) : QString();
    if (event == "list")
        return entry.outcome == "failed" ? texts::tr("Listing the %1 failed: %2").arg(kinds(entry.kind), entry.reason)
                                         : with_who(texts::tr("The service listed the %1").arg(kinds(entry.kind)));
    if (event == "activate") {
        if (entry.outcome == "failed")
            return texts::tr("%1 did not start: %2").arg(what(entry), entry.reason);
        return with_who(texts::tr("Streaming %1 to %2").arg(what(entry), entry.ingest));
    }
    if (event == "deny")
        return entry.source.isEmpty() && entry.ingest.isEmpty()
                   ? with_who(texts::tr("Refused to list the %1").arg(kinds(entry.kind)))
                   : with_who(texts::tr("Refused %1").arg(what(entry)));
    if (event == "deactivate")
        return entry.decided == "user" ? texts::tr("You stopped %1 after %2").arg(what(entry), took)
                                       : texts::tr("The service stopped %1 after %2").arg(what(entry), took);
    if (event == "ended")
        return texts::tr("%1 ended after %2: %3").arg(what(entry), took, entry.reason);
    if (event == "reset")
        return texts::tr("The service removed this computer from the account");
    if (event == "sign-out")
        return texts::tr("You signed out");
    return event;
}

} // namespace

QString activity_line(const app::history_entry& entry)
{
    QString text = sentence(entry);
    if (!text.isEmpty())
        text[0] = text[0].toUpper();
    return QLocale().toString(entry.time, QLocale::ShortFormat) + QStringLiteral(" · ") + text;
}

QWidget* make_activity_view(app::history* events, std::function<void()> done)
{
    auto* view = new QWidget;
    auto* layout = new QVBoxLayout(view);
    layout->setContentsMargins(24, 20, 24, 20);
    layout->setSpacing(12);
    auto* heading = new QLabel(texts::tr("What the service used"));
    QFont font = heading->font();
    font.setWeight(QFont::DemiBold);
    font.setPointSizeF(font.pointSizeF() * 1.15);
    heading->setFont(font);
    heading->setAlignment(Qt::AlignCenter);
    auto* list = new QListWidget;
    list->setObjectName("activityList");
    list->setAccessibleName(texts::tr("Activity"));
    list->setSelectionMode(QAbstractItemView::NoSelection);
    list->setMinimumHeight(260);
    auto* clear = new QPushButton(texts::tr("Clear history"));
    clear->setObjectName("buttonClearHistory");
    clear->setAccessibleName(clear->text());
    auto* close = new QPushButton(texts::tr("Done"));
    close->setObjectName("buttonDone");
    close->setAccessibleName(close->text());
    close->setDefault(true);
    auto* buttons = new QHBoxLayout;
    buttons->addWidget(clear);
    buttons->addStretch();
    buttons->addWidget(close);
    layout->addWidget(heading);
    layout->addWidget(list);
    layout->addLayout(buttons);

    auto fill = [events, list, clear] {
        list->clear();
        std::vector<app::history_entry> entries;
        if (events)
            entries = events->recent(activity_lines);
        for (const auto& entry : entries) {
            auto* item = new QListWidgetItem(activity_line(entry), list);
            item->setToolTip(item->text()); // the whole line, where the list cuts it
        }
        if (entries.empty())
            new QListWidgetItem(texts::tr("Nothing yet."), list);
        clear->setEnabled(!entries.empty());
    };
    fill();
    if (events) {
        QObject::connect(events, &app::history::changed, view, fill);
        QObject::connect(clear, &QPushButton::clicked, view, [events] { events->clear(); });
    }
    QObject::connect(close, &QPushButton::clicked, view, [done] { done(); });
    return view;
}

} // namespace orbweave::ui
