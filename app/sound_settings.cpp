#include "app/sound_settings.hpp"

#include "core/log.hpp"

#include <QCoreApplication>
#include <QProcess>
#include <QStandardPaths>

namespace orbweave::app {

std::optional<sound_settings_tool> find_sound_settings()
{
    const std::pair<const char*, QStringList> tools[] = {
        {"pavucontrol", {"--tab=3"}},
        {"gnome-control-center", {"sound"}},
        {"systemsettings", {"kcm_pulseaudio"}},
    };
    for (const auto& [name, arguments] : tools) {
        QString program = QStandardPaths::findExecutable(QString::fromLatin1(name));
        if (!program.isEmpty())
            return sound_settings_tool{program, arguments};
    }
    return std::nullopt;
}

bool open_sound_settings()
{
    auto tool = find_sound_settings();
    if (!tool) {
        log::line("No sound settings tool is installed");
        return false;
    }
    QProcess process;
    process.setProgram(tool->program);
    process.setArguments(tool->arguments);
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    if (!process.startDetached()) {
        log::line("The sound settings (" + tool->program.toStdString() + ") could not start");
        return false;
    }
    return true;
}

QString sound_settings_missing_text()
{
    return QCoreApplication::translate(
        "orbweave::app::sound_settings", "No sound settings tool was found. Install pavucontrol (“PulseAudio Volume Control”), "
                    "or open your desktop's sound settings, and choose “Orbweave Virtual Audio Driver” "
                    "as the output device.");
}

} // namespace orbweave::app
