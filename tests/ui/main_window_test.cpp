// The main window's logic on the offscreen platform: which view shows when, what each
// view stores and posts, and the names assistive technology finds.

#include "app/event_bus.hpp"
#include "app/preferences.hpp"
#include "tests/app/qt_support.hpp"
#include "tests/support/temp_dir.hpp"
#include "ui/activity_view.hpp"
#include "ui/link_button.hpp"
#include "ui/main_window.hpp"

#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QTest>
#include <QTranslator>
#include <QXmlStreamReader>

#include <gtest/gtest.h>

namespace orbweave::ui {
namespace {

using callback::source_type;
using callback::state_type;
using test::pump_until;

class MainWindow : public ::testing::Test {
protected:
    MainWindow() : stored(QString::fromStdString(dir.file("orbweave.conf"))), window(bus, stored, [this] { return code; }) {}

    QString shown() { return window.view() ? window.view()->objectName() : QString(); }
    template <class Widget>
    Widget* find(const char* name) { return window.view()->findChild<Widget*>(name); }

    test::temp_dir dir;
    app::event_bus bus;
    app::preferences stored;
    QString code;
    main_window window;
};

TEST_F(MainWindow, FollowsTheStateAndRequests)
{
    EXPECT_EQ(window.windowTitle(), "Orbweave");
    EXPECT_TRUE(window.windowFlags() & Qt::WindowStaysOnTopHint);
    EXPECT_EQ(shown(), "disconnectedViewController");
    bus.post(app::events::state_changed, QVariant::fromValue(state_type::pairing));
    EXPECT_TRUE(pump_until([&] { return shown() == "setupViewController"; }));
    QWidget* before = window.view();
    bus.post(app::events::state_changed, QVariant::fromValue(state_type::streaming)); // unchanged
    bus.post(app::events::view_show, QString("setupViewController"));
    EXPECT_TRUE(pump_until([&] { return window.view() != before; })) << "a fresh view per switch";
    EXPECT_EQ(shown(), "setupViewController");
    bus.post(app::events::state_changed, QVariant::fromValue(state_type::connected));
    EXPECT_TRUE(pump_until([&] { return shown() == "permissionsViewController"; }));
    bus.post(app::events::view_show, QString("readyViewController"));
    EXPECT_TRUE(pump_until([&] { return shown() == "readyViewController"; }));
    bus.post(app::events::state_changed, QVariant::fromValue(state_type::disconnected));
    EXPECT_TRUE(pump_until([&] { return shown() == "disconnectedViewController"; }));

    // Shown at start only when nobody is signed in; Escape closes it.
    window.show_at_start();
    EXPECT_TRUE(window.isVisible());
    QTest::keyClick(&window, Qt::Key_Escape);
    EXPECT_FALSE(window.isVisible());
    stored.set_owner("Ann", "");
    window.show_at_start();
    EXPECT_FALSE(window.isVisible());
    bus.post(app::events::window_show);
    EXPECT_TRUE(pump_until([&] { return window.isVisible(); }));
    bus.post(app::events::window_hide);
    EXPECT_TRUE(pump_until([&] { return !window.isVisible(); }));
}

TEST_F(MainWindow, TheSetupViewShowsTheCodeForScreenReadersAndTheClipboard)
{
    code = "QH7QLZ35";
    window.show_view("setupViewController");
    auto* label = find<QLabel>("codeTextField");
    ASSERT_TRUE(label);
    EXPECT_EQ(label->text(), "QH7QLZ35");
    EXPECT_EQ(label->accessibleName(), "Pairing code");
    EXPECT_EQ(label->accessibleDescription(), "QH7QLZ35");
    auto* copy = find<QPushButton>("codeCopyButton");
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->accessibleName(), "Copy code");
    copy->click();
    EXPECT_EQ(QApplication::clipboard()->text(), "QH7QLZ35");

    bus.post(app::events::code_changed, QVariant()); // cleared: waiting again
    EXPECT_TRUE(pump_until([&] { return label->text().isEmpty(); }));
    EXPECT_FALSE(copy->isEnabled());
    bus.post(app::events::code_changed, QString("ABCD2345"));
    EXPECT_TRUE(pump_until([&] { return label->text() == "ABCD2345"; }));
}

TEST_F(MainWindow, PermissionsStoreAtOnceAndContinueOnlyTheFirstTime)
{
    stored.set_permission(source_type::window, 0);
    window.show_view("permissionsViewController");
    struct expected {
        const char* object;
        const char* accessible;
        source_type::type kind;
    };
    const char* meanings[] = {"Listed freely; each stream asks you first.", "Never listed, never streamed.",
                              "Listed and streamed without asking you."};
    for (const expected& e : {expected{"comboPermissionDisplay", "Display permission", source_type::screen},
                              expected{"comboPermissionWindow", "Window permission", source_type::window},
                              expected{"comboPermissionAudio", "Audio permission", source_type::audio},
                              expected{"comboPermissionVideo", "Camera permission", source_type::video}}) {
        auto* combo = find<QComboBox>(e.object);
        ASSERT_TRUE(combo) << e.object;
        EXPECT_EQ(combo->accessibleName(), e.accessible);
        EXPECT_EQ(combo->currentIndex(), static_cast<int>(stored.permission_value(e.kind)));
        // Under each choice, one line says what it means, and follows the choice.
        auto* meaning = find<QLabel>((std::string(e.object) + "Meaning").c_str());
        ASSERT_TRUE(meaning);
        EXPECT_EQ(meaning->text(), meanings[combo->currentIndex()]);
        combo->setCurrentIndex(1);
        EXPECT_EQ(stored.permission_value(e.kind), 1u) << "stored at once";
        EXPECT_EQ(combo->accessibleDescription(), meanings[1]);
    }
    auto* combo = find<QComboBox>("comboPermissionVideo");
    EXPECT_EQ(QStringList({combo->itemText(0), combo->itemText(1), combo->itemText(2)}),
              QStringList({"Ask", "Deny", "Always allow"}));

    int changed = 0;
    QObject observer;
    bus.observe(app::events::permissions_changed, &observer, [&](const QVariant&) { ++changed; });
    auto* next = find<QPushButton>("buttonContinue");
    ASSERT_TRUE(next);
    EXPECT_EQ(next->accessibleName(), "Continue");
    next->click();
    EXPECT_TRUE(stored.has_set_permissions());
    EXPECT_TRUE(pump_until([&] { return changed == 1 && shown() == "readyViewController"; }));

    // Later visits offer Done, which closes the window.
    window.show_view("permissionsViewController");
    EXPECT_FALSE(find<QPushButton>("buttonContinue"));
    ASSERT_TRUE(find<QPushButton>("buttonDone"));
    window.bring_up();
    find<QPushButton>("buttonDone")->click();
    EXPECT_TRUE(pump_until([&] { return !window.isVisible(); }));
}

TEST_F(MainWindow, TheReadyViewNamesTheUser)
{
    stored.set_owner("Ann Example", "");
    window.show_view("readyViewController");
    auto* username = find<QLabel>("usernameTextField");
    ASSERT_TRUE(username);
    EXPECT_EQ(username->text(), "Ann Example");
    EXPECT_EQ(username->accessibleName(), "Username");
    EXPECT_EQ(username->accessibleDescription(), "Ann Example");
    ASSERT_TRUE(find<QLabel>("avatarImageView"));
    EXPECT_EQ(find<QLabel>("avatarImageView")->accessibleName(), "Avatar");
    stored.set_owner("Bo", "");
    bus.post(app::events::user_changed);
    EXPECT_TRUE(pump_until([&] { return username->text() == "Bo"; }));

    // The permissions link: before Done in the tab order, and it shows that view.
    auto* link = find<link_button>("permissionsLink");
    ASSERT_TRUE(link);
    EXPECT_EQ(link->nextInFocusChain(), find<QPushButton>("buttonDone"));
    link->click();
    EXPECT_TRUE(pump_until([&] { return window.view()->objectName() == "permissionsViewController"; }));
}

TEST_F(MainWindow, WhileSigningOutOrStoppingItSaysSoAndTheStatesWait)
{
    auto heading = [&] { return window.view()->findChild<QLabel*>()->text(); };
    bus.post(app::events::activity_changed, QVariant::fromValue(app::activity::signing_out));
    EXPECT_TRUE(pump_until([&] { return heading() == "Signing out…"; }));
    bus.post(app::events::state_changed, QVariant::fromValue(state_type::disconnected));
    bus.post(app::events::activity_changed, QVariant::fromValue(app::activity::stopping));
    EXPECT_TRUE(pump_until([&] { return heading() == "Stopping…"; }));
    EXPECT_EQ(shown(), "disconnectedViewController");
    bus.post(app::events::activity_changed, QVariant::fromValue(app::activity::none));
    bus.post(app::events::state_changed, QVariant::fromValue(state_type::pairing));
    EXPECT_TRUE(pump_until([&] { return shown() == "setupViewController"; }));
}

/// Every message of a translation file, as (source, translation, whether finished).
struct ts_message {
    QString source;
    QString translation;
    bool finished;
};
std::vector<ts_message> read_ts(const QString& path)
{
    std::vector<ts_message> messages;
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path.toStdString();
    QXmlStreamReader xml(&file);
    while (!xml.atEnd()) {
        if (xml.readNext() != QXmlStreamReader::StartElement)
            continue;
        if (xml.name() == QLatin1String("source"))
            messages.push_back({xml.readElementText(), {}, false});
        else if (xml.name() == QLatin1String("translation") && !messages.empty()) {
            // "unfinished", "vanished" and "obsolete" all mean a text the app would show untranslated.
            messages.back().finished = xml.attributes().value("type").isEmpty();
            messages.back().translation = xml.readElementText();
        }
    }
    EXPECT_FALSE(xml.hasError()) << xml.errorString().toStdString();
    return messages;
}

// The Activity view: the last 50 events, newest first, in local time, one line each; it
// follows the history as it grows, and Clear empties it.
TEST_F(MainWindow, TheActivityViewListsTheLastEventsNewestFirstAndClears)
{
    app::history events(QString::fromStdString(dir.file("state/orbweave/activity.jsonl")));
    window.set_history(&events);
    auto line = [](const char* event, callback::source_type::type kind, const char* source) {
        activity_event entry;
        entry.event = event;
        entry.kind = kind;
        entry.source = source;
        return entry;
    };
    activity_event started = line("activate", source_type::screen, "Display 1");
    started.ingest = "rtmp://ingest.example";
    started.decided = "rule";
    started.outcome = "started";
    for (int i = 0; i < 60; ++i)
        events.record(line("list", source_type::window, ""));
    events.record(started);
    activity_event ended = line("ended", source_type::screen, "Display 1");
    ended.reason = "rtmp disconnected";
    ended.duration = 75.2;
    events.record(ended);

    window.show_view("activityViewController");
    auto* list = find<QListWidget>("activityList");
    ASSERT_TRUE(list);
    auto lines = [list] {
        QStringList texts;
        for (int row = 0; row < list->count(); ++row)
            texts << list->item(row)->text();
        return texts;
    };
    ASSERT_EQ(list->count(), 50);
    // In local time, as the locale writes it.
    QDateTime newest = events.recent(1).at(0).time;
    EXPECT_EQ(newest.timeSpec(), Qt::LocalTime);
    EXPECT_LT(std::abs(newest.secsTo(QDateTime::currentDateTime())), 60);
    EXPECT_TRUE(lines()[0].startsWith(QLocale().toString(newest, QLocale::ShortFormat) + " · ")) << lines()[0].toStdString();
    EXPECT_TRUE(lines()[0].endsWith("The screen “Display 1” ended after 1 min 15 s: rtmp disconnected"))
        << lines()[0].toStdString();
    EXPECT_TRUE(lines()[1].endsWith("Streaming the screen “Display 1” to rtmp://ingest.example, by your permission settings"))
        << lines()[1].toStdString();
    EXPECT_TRUE(lines()[2].endsWith("The service listed the windows")) << lines()[2].toStdString();

    // A new event shows at the top once recorded.
    activity_event out = line("sign-out", source_type::none, "");
    out.decided = "user";
    events.record(out);
    EXPECT_TRUE(pump_until([&] { return lines().value(0).endsWith("You signed out"); })) << lines().value(0).toStdString();

    auto* clear = find<QPushButton>("buttonClearHistory");
    ASSERT_TRUE(clear);
    EXPECT_EQ(clear->accessibleName(), "Clear history");
    clear->click();
    EXPECT_TRUE(pump_until([&] { return lines() == QStringList{"Nothing yet."}; })) << lines().join("\n").toStdString();
    EXPECT_FALSE(clear->isEnabled());
    EXPECT_TRUE(events.recent(50).empty());
    EXPECT_FALSE(QFile::exists(QString::fromStdString(events.log()->path())));
}

TEST_F(MainWindow, EveryTranslationIsCompleteAndALoadedCatalogueReachesTheViews)
{
    QStringList files = QDir(ORBWEAVE_SOURCE_TRANSLATIONS).entryList({"orbweave_*.ts"});
    ASSERT_TRUE(files.contains("orbweave_de.ts"));
    for (const QString& name : files) {
        std::vector<ts_message> messages = read_ts(QString(ORBWEAVE_SOURCE_TRANSLATIONS) + "/" + name);
        EXPECT_GT(messages.size(), 50u) << name.toStdString();
        for (const auto& message : messages) {
            EXPECT_TRUE(message.finished && !message.translation.isEmpty())
                << name.toStdString() << ": \"" << message.source.toStdString() << "\" is not translated";
            EXPECT_EQ(message.source.contains("%1"), message.translation.contains("%1")) << message.source.toStdString();
        }
    }

    // What the app loads for a German locale reaches the views (one text stands for the
    // catalogue: which string says what is the .ts file's business, checked above).
    QTranslator german;
    ASSERT_TRUE(german.load(QLocale(QLocale::German, QLocale::Germany), "orbweave", "_", ORBWEAVE_TRANSLATIONS));
    QCoreApplication::installTranslator(&german);
    window.show_view("setupViewController");
    QStringList buttons;
    for (QAbstractButton* button : window.view()->findChildren<QAbstractButton*>())
        buttons << button->text();
    EXPECT_TRUE(buttons.contains("Code kopieren")) << buttons.join(" | ").toStdString();
    QCoreApplication::removeTranslator(&german);
}

TEST(LinkButton, ReachedWithTheKeyboardItUnderlinesInItsActiveColourAndSpacePressesIt)
{
    link_button link("Open");
    link.set_colors(Qt::blue, Qt::red);
    EXPECT_EQ(link.cursor().shape(), Qt::PointingHandCursor);
    EXPECT_TRUE(link.isFlat());
    auto shown = [&] { return std::make_pair(link.underlined(), link.palette().color(QPalette::ButtonText)); };
    EXPECT_EQ(shown(), std::make_pair(false, QColor(Qt::blue)));

    int presses = 0;
    QObject::connect(&link, &QPushButton::clicked, [&] { ++presses; });
    QFocusEvent focus_in(QEvent::FocusIn, Qt::TabFocusReason);
    QApplication::sendEvent(&link, &focus_in);
    EXPECT_EQ(shown(), std::make_pair(true, QColor(Qt::red)));
    QTest::keyClick(&link, Qt::Key_Space);
    EXPECT_EQ(presses, 1);
    QFocusEvent focus_out(QEvent::FocusOut, Qt::TabFocusReason);
    QApplication::sendEvent(&link, &focus_out);
    EXPECT_FALSE(link.underlined());
}

} // namespace
} // namespace orbweave::ui
