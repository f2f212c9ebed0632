// orbweave: the desktop app. Lives in the tray, keeps the link to the
// service, and asks the user before the service may use a source.

#include "app/app_delegate.hpp"
#include "app/audio_server_process.hpp"
#include "app/autostart.hpp"
#include "app/default_output.hpp"
#include "app/desktop_check.hpp"
#include "app/event_bus.hpp"
#include "app/notification_prompter.hpp"
#include "app/preferences.hpp"
#include "app/quit_signals.hpp"
#include "app/secret_keeper.hpp"
#include "app/single_instance.hpp"
#include "app/translations.hpp"
#include "core/command_line.hpp"
#include "core/log.hpp"
#include "core/version.hpp"
#include "ui/check_window.hpp"
#include "ui/permission_dialog.hpp"
#include "ui/main_window.hpp"
#include "ui/status_menu.hpp"

#include <QApplication>

#include <cstdlib>
#include <iostream>
#include <stdexcept>

namespace {

std::string usage()
{
    return "Usage: orbweave [options]\n\n"
           "Lets the live-production service use this computer's screens, windows, audio\n"
           "devices and cameras, with your consent. The protocol log goes to standard error.\n\n"
           "Options:\n" +
           orbweave::command_line::common_usage() +
           "  --check           check this computer (display, sound, encoders, the service,\n"
           "                    tray, notifications, keyring, autostart), print one line\n"
           "                    per check and exit: 0 when a stream can work here\n"
           "  --json            with --check: print the result as one JSON object\n";
}

/// What --check and the tray's "Check this computer…" check.
orbweave::check::settings check_settings(const orbweave::command_line::common_options& options)
{
    orbweave::check::settings settings;
    settings.service_url = options.service_url;
    settings.ca_file = options.ca_file;
    settings.bitrate = options.bitrate;
    settings.capture = options.capture;
    return settings;
}

} // namespace

int main(int argc, char** argv)
{
    using namespace orbweave;

    command_line::common_options options;
    bool check = false, json = false;
    try {
        options = command_line::parse(std::vector<std::string>(argv + 1, argv + argc),
                                      [&](const std::string& name, const command_line::value_reader&) {
                                          bool* flag = name == "--check" ? &check : name == "--json" ? &json : nullptr;
                                          if (flag)
                                              *flag = true;
                                          return flag != nullptr;
                                      });
        if (json && !check)
            throw std::invalid_argument("--json goes with --check");
    } catch (const std::invalid_argument& error) {
        std::cerr << "orbweave: " << error.what() << "\n";
        return 2;
    }
    if (options.show_help) {
        std::cout << usage();
        return 0;
    }
    if (options.show_version) {
        std::cout << "orbweave " << client_version << "\n";
        return 0;
    }
    if (check) {
        // The workers' own log would be interleaved with the answer; errors still show.
        ::setenv("ORBWEAVE_OBS_LOG", "error", 0);
        QCoreApplication checking(argc, argv);
        return app::print_desktop_check(check_settings(options), json);
    }

    QApplication application(argc, argv);
    QApplication::setApplicationName("orbweave");
    QApplication::setApplicationVersion(client_version);
    QApplication::setDesktopFileName("org.orbweave.Client");
    // The app lives on in the tray when its window closes; only Quit or a signal end it.
    QApplication::setQuitOnLastWindowClosed(false);
    app::install_translations(QLocale());

    app::register_event_types();
    app::event_bus bus;
    // A second launch shows the running app and ends here.
    app::single_instance instance(bus);
    if (instance.started_as() == app::single_instance::role::second)
        return 0;

    // Ends with the app (its destructor, after the event loop), unloading its device.
    app::audio_server_process audio_server;
    app::preferences preferences;
    app::secret_keeper secrets(preferences);
    app::autostart launch_at_login(bus, QCoreApplication::applicationFilePath());
    app::app_delegate::settings settings;
    settings.service_url = options.service_url;
    settings.bitrate = options.bitrate;
    settings.client.transport.ca_file = options.ca_file;
    command_line::use_capture_route(options.capture, settings.client);
    std::optional<int> max_streams = options.max_streams;
    if (!max_streams && preferences.max_streams() > 0)
        max_streams = static_cast<int>(preferences.max_streams());
    command_line::use_stream_limit(max_streams, settings.client);
    settings.client.media.restore_tokens = app::state_home().toStdString() + "/orbweave/restore-tokens.json";
    settings.client.media.warm = true;
    app::history history(app::history::default_path());
    settings.client.activity = history.log();
    app::app_delegate delegate(bus, preferences, secrets, settings);
    delegate.set_history(&history);
    // Consent through the desktop's notifications, or a dialog where they cannot ask.
    delegate.set_autostart(&launch_at_login);
    delegate.set_prompter(std::make_shared<app::notification_prompter>(QDBusConnection::sessionBus(),
                                                                       &ui::ask_with_dialog));

    // Quit (the menu's, a signal's, the session's end) stops the client off the GUI thread, so
    // the interface answers meanwhile, and leaves the event loop once every worker is gone.
    // exit() rather than quit(): no window gets a say in it.
    auto quit = [&delegate] { delegate.quit([] { QCoreApplication::exit(0); }); };
    ui::status_menu menu(bus, preferences, launch_at_login, [&delegate] { delegate.sign_out(); }, quit);
    bool in_tray = menu.show_in_tray();
    if (!in_tray)
        orbweave::log::line("No system tray on this desktop; the main window carries the menu");
    // Captured sound needs the virtual output as the default; the menu warns otherwise.
    app::default_output_watcher output([&menu](const QString& description) { menu.audio().on_default_output(description); });
    ui::check_window checker(check_settings(options));
    ui::check_window::add_to_menu(menu.menu(), [&checker] { checker.open_and_check(); });
    ui::main_window window(bus, preferences, [&delegate] { return delegate.code(); }, in_tray ? nullptr : menu.menu());
    window.set_history(&history);
    window.show_at_start();

    app::quit_signals on_signal(quit);
    QObject::connect(&application, &QCoreApplication::aboutToQuit, [&delegate] { delegate.shutdown(); });
    // The client presents the stored secret, so it connects once that is read.
    secrets.load([&delegate] { delegate.start(); });
    return application.exec();
}
