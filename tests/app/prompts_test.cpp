// Consent prompts on a private session bus, against a recording stand-in for the
// desktop's notification server that answers as a user would.

#include "app/notification_prompter.hpp"
#include "tests/app/notification_server.hpp"
#include "ui/permission_dialog.hpp"
#include "tests/support/session_bus.hpp"
#include "tests/support/stderr_capture.hpp"

#include <QApplication>
#include <QMessageBox>
#include <QPushButton>
#include <QDBusConnection>
#include <QObject>

#include "tests/app/qt_support.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <vector>

namespace orbweave::app {
namespace {

using test::pump_until;

using namespace std::chrono_literals;

/// A permission request that records its answers.
struct recorded {
    std::vector<bool> answers;
    callback::request request{[this](bool allowed) { answers.push_back(allowed); }};
};

class Prompts : public ::testing::Test {
protected:
    Prompts()
        : app_side(QDBusConnection::connectToBus(QString::fromStdString(bus.address()), "app")),
          desktop(QDBusConnection::connectToBus(QString::fromStdString(bus.address()), "desktop"))
    {
    }
    ~Prompts() override
    {
        server.reset();
        prompter.reset();
        QDBusConnection::disconnectFromBus("app");
        QDBusConnection::disconnectFromBus("desktop");
    }

    void start(QStringList capabilities, notification_prompter::fallback fallback = {})
    {
        if (!capabilities.isEmpty())
            server = std::make_unique<notification_server>(desktop, capabilities);
        prompter = std::make_unique<notification_prompter>(app_side, std::move(fallback));
    }

    /// Asks, and returns the notification's id once the server has it.
    uint ask(recorded& request, const std::string& name = "Display 1", const std::string& description = "1280x720")
    {
        std::size_t before = server->notified.size();
        prompter->ask(callback::source_type::screen, name, description, "Ann Example", request.request);
        EXPECT_TRUE(pump_until([&] { return server->notified.size() > before; }));
        return static_cast<uint>(server->notified.size()) + 100;
    }

    /// Everything sent before has been handled on both sides: a full round trip.
    void settle()
    {
        recorded sentinel;
        uint id = ask(sentinel);
        server->invoke(id, "deny");
        EXPECT_TRUE(pump_until([&] { return !sentinel.answers.empty(); }));
    }

    test::session_bus bus;
    QDBusConnection app_side;
    QDBusConnection desktop;
    std::unique_ptr<notification_server> server;
    std::unique_ptr<notification_prompter> prompter;
};

TEST_F(Prompts, ANotificationAsksAndTheFirstAnswerCounts)
{
    start({"actions", "body"});
    test::stderr_capture log;
    recorded allowed;
    uint id = ask(allowed);
    const auto& call = server->notified.back();
    EXPECT_EQ(call.app_name, "Orbweave");
    EXPECT_EQ(call.replaces_id, 0u);
    EXPECT_EQ(call.app_icon, "org.orbweave.Client");
    EXPECT_EQ(call.summary, "Requesting Permission");
    // Who asks, for what, and that it goes live until stopped.
    EXPECT_EQ(call.body, "Ann Example asks to stream the screen “Display 1” (1280x720).\n"
                         "It will be streamed live until you stop it from the tray icon.");
    EXPECT_EQ(call.actions, QStringList({"default", "Allow", "allow", "Allow", "deny", "Deny"}));
    EXPECT_EQ(call.hints.value("desktop-entry").toString(), "org.orbweave.Client");
    EXPECT_EQ(call.hints.value("urgency").toInt(), 2);
    EXPECT_EQ(call.expire_timeout, 0);

    // Allow, then the close that follows it: one answer, and the prompt was closed.
    server->invoke(id, "allow");
    server->dismiss(id);
    ASSERT_TRUE(pump_until([&] { return !allowed.answers.empty(); }));
    settle();
    EXPECT_EQ(allowed.answers, std::vector<bool>{true});
    EXPECT_NE(std::find(server->closed.begin(), server->closed.end(), id), server->closed.end());
    EXPECT_EQ(log.count_lines_starting("User accepted request " + std::to_string(id)), 1);

    // Deny and a close refuse; a click on the body (no dialog to open here) grants nothing,
    // and Allow still can; each prompt on its own.
    recorded by_default, denied, dismissed;
    uint first = ask(by_default);
    uint second = ask(denied);
    uint third = ask(dismissed);
    EXPECT_NE(first, second);
    server->dismiss(third);
    server->invoke(second, "deny");
    server->invoke(first, "default");
    ASSERT_TRUE(pump_until([&] { return !denied.answers.empty() && !dismissed.answers.empty(); }));
    settle();
    EXPECT_TRUE(by_default.answers.empty());
    server->invoke(first, "allow");
    ASSERT_TRUE(pump_until([&] { return !by_default.answers.empty(); }));
    EXPECT_EQ(by_default.answers, std::vector<bool>{true});
    EXPECT_EQ(denied.answers, std::vector<bool>{false});
    EXPECT_EQ(dismissed.answers, std::vector<bool>{false});
    EXPECT_EQ(log.count_lines_starting("User rejected request " + std::to_string(second)), 1);
}

// A click on the banner is how GNOME Shell and dunst users look at a notification: it opens
// the dialog for the same request, which alone answers it, once.
TEST_F(Prompts, AClickOnTheBodyOpensTheDialogForTheSameRequestAndGrantsNothingByItself)
{
    std::vector<prompt_text> asked;
    std::vector<std::function<void(bool)>> pending;
    start({"actions", "body"}, [&](const prompt_text& text, std::function<void(bool)> answer) {
        asked.push_back(text);
        pending.push_back(std::move(answer));
    });
    recorded allowed, denied;
    uint first = ask(allowed);
    uint second = ask(denied, "xterm", "shell");

    server->invoke(first, "default");
    ASSERT_TRUE(pump_until([&] { return asked.size() == 1; }));
    EXPECT_EQ(asked[0].kind, callback::source_type::screen);
    EXPECT_EQ(asked[0].name, "Display 1");
    EXPECT_EQ(asked[0].account, "Ann Example");
    EXPECT_EQ(asked[0].request(), "Ann Example asks to stream the screen “Display 1” (1280x720).");
    // The notification goes (and its close, as a server reports it, refuses nothing).
    ASSERT_TRUE(pump_until([&] { return std::count(server->closed.begin(), server->closed.end(), first) == 1; }));
    server->dismiss(first);
    server->invoke(first, "default");
    settle();
    EXPECT_TRUE(allowed.answers.empty());
    EXPECT_EQ(asked.size(), 1u) << "a second dialog for one request";

    // The dialog answers, once.
    pending[0](true);
    pending[0](false);
    EXPECT_EQ(allowed.answers, std::vector<bool>{true});

    // The same for a refusal in the dialog.
    server->invoke(second, "default");
    ASSERT_TRUE(pump_until([&] { return asked.size() == 2; }));
    EXPECT_EQ(asked[1].name, "xterm");
    pending[1](false);
    EXPECT_EQ(denied.answers, std::vector<bool>{false});
}

// What the user caused and did not get (a stream that did not start) is told without a
// question, as plain text whatever the names hold.
TEST_F(Prompts, ATellingNotificationHasNoActionsAndEveryNotificationEscapesItsText)
{
    start({"actions", "body-markup"});
    prompter->tell("The stream did not start", "<b>Display</b> is not streamed: refused");
    ASSERT_TRUE(pump_until([&] { return !server->notified.empty(); }));
    const auto& call = server->notified.back();
    EXPECT_EQ(call.summary, "The stream did not start");
    EXPECT_EQ(call.body, "&lt;b&gt;Display&lt;/b&gt; is not streamed: refused");
    EXPECT_TRUE(call.actions.isEmpty());
    EXPECT_EQ(call.app_icon, "org.orbweave.Client");

    // A question's names, too: no text poses as the prompt.
    recorded request;
    ask(request, "<b>Allow</b> & more", "x < y");
    EXPECT_EQ(server->notified.back().body,
              "Ann Example asks to stream the screen “&lt;b&gt;Allow&lt;/b&gt; &amp; more” (x &lt; y).\n"
              "It will be streamed live until you stop it from the tray icon.");
}

TEST_F(Prompts, SigningOutRefusesEveryOpenPrompt)
{
    start({"actions"});
    recorded one, two;
    uint first = ask(one);
    uint second = ask(two);
    prompter->refuse_all();
    EXPECT_EQ(one.answers, std::vector<bool>{false});
    EXPECT_EQ(two.answers, std::vector<bool>{false});
    ASSERT_TRUE(pump_until([&] { return server->closed.size() >= 2; }));
    EXPECT_EQ(server->closed, std::vector<uint>({first, second}));
    server->invoke(first, "allow"); // too late
    settle();
    EXPECT_EQ(one.answers, std::vector<bool>{false});
}

TEST_F(Prompts, WithoutAServerOrActionsTheFallbackAsks)
{
    std::vector<prompt_text> asked;
    std::function<void(bool)> pending;
    auto dialog = [&](const prompt_text& text, std::function<void(bool)> answer) {
        asked.push_back(text);
        pending = std::move(answer);
    };

    // No notification server on the bus at all.
    start({}, dialog);
    recorded first;
    prompter->ask(callback::source_type::window, "xterm", "shell", "", first.request);
    ASSERT_TRUE(pump_until([&] { return !asked.empty(); }));
    EXPECT_EQ(asked.back().title, "Requesting Permission");
    EXPECT_EQ(asked.back().name, "xterm");
    pending(true);
    EXPECT_EQ(first.answers, std::vector<bool>{true});

    // A server that cannot show actions.
    server = std::make_unique<notification_server>(desktop, QStringList{"body"});
    recorded second;
    prompter->ask(callback::source_type::window, "xterm", "shell", "", second.request);
    ASSERT_TRUE(pump_until([&] { return asked.size() == 2; }));
    EXPECT_TRUE(server->notified.empty());
    pending(false);
    EXPECT_EQ(second.answers, std::vector<bool>{false});

    // And no fallback at all: refused.
    prompter = std::make_unique<notification_prompter>(app_side);
    recorded third;
    prompter->ask(callback::source_type::window, "xterm", "shell", "", third.request);
    ASSERT_TRUE(pump_until([&] { return !third.answers.empty(); }));
    EXPECT_EQ(third.answers, std::vector<bool>{false});
}

TEST(PermissionDialog, AllowGrantsAndAnyOtherEndRefuses)
{
    auto open_dialog = [] {
        for (QWidget* widget : QApplication::topLevelWidgets())
            if (widget->objectName() == "permissionDialog" && widget->isVisible())
                return qobject_cast<QMessageBox*>(widget);
        return static_cast<QMessageBox*>(nullptr);
    };
    auto button = [](QMessageBox* dialog, const QString& text) {
        for (QAbstractButton* b : dialog->buttons())
            if (b->text() == text)
                return b;
        return static_cast<QAbstractButton*>(nullptr);
    };
    std::vector<bool> answers;
    ui::ask_with_dialog({"Requesting Permission", "<b>xterm</b>", "<i>shell</i>", callback::source_type::window, "Ann"},
                        [&](bool a) { answers.push_back(a); });
    QMessageBox* dialog = open_dialog();
    ASSERT_TRUE(dialog);
    EXPECT_EQ(dialog->windowTitle(), "Requesting Permission");
    // A window's title and text must not be read as markup, wherever they stand.
    EXPECT_EQ(dialog->textFormat(), Qt::PlainText);
    EXPECT_EQ(dialog->text(), "Ann asks to stream the window “<b>xterm</b>” (<i>shell</i>).");
    EXPECT_FALSE(dialog->informativeText().contains("shell"));
    EXPECT_TRUE(dialog->informativeText().contains("streamed live until you stop it from the tray icon"));
    EXPECT_FALSE(dialog->isModal());
    ASSERT_TRUE(button(dialog, "Allow") && button(dialog, "Deny"));
    button(dialog, "Allow")->click();
    EXPECT_EQ(answers, std::vector<bool>{true});

    ui::ask_with_dialog({"Requesting Permission", "xterm", "shell", callback::source_type::window, ""},
                        [&](bool a) { answers.push_back(a); });
    ASSERT_TRUE(pump_until([&] { return open_dialog() != nullptr; }));
    button(open_dialog(), "Deny")->click();
    ui::ask_with_dialog({"Requesting Permission", "xterm", "shell", callback::source_type::window, ""},
                        [&](bool a) { answers.push_back(a); });
    ASSERT_TRUE(pump_until([&] { return open_dialog() != nullptr; }));
    open_dialog()->close();
    EXPECT_EQ(answers, std::vector<bool>({true, false, false}));
}

} // namespace
} // namespace orbweave::app

