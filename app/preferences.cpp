#include "app/preferences.hpp"

#include "core/obs/stream_limit.hpp"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace orbweave::app {

using callback::source_type;

namespace {

// The registered defaults; "clientIgnoreAudioDeviceEvents" is not registered and reads false.
constexpr unsigned default_permission = static_cast<unsigned>(permission::always_allow);
constexpr unsigned default_profile = 1; // medium

} // namespace

QString config_home()
{
    QString config = qEnvironmentVariable("XDG_CONFIG_HOME");
    return config.isEmpty() ? QDir::homePath() + "/.config" : config;
}

QString state_home()
{
    QString state = qEnvironmentVariable("XDG_STATE_HOME");
    return state.isEmpty() ? QDir::homePath() + "/.local/state" : state;
}

QString preferences::default_path()
{
    return config_home() + "/orbweave/orbweave.conf";
}

preferences::preferences(const QString& path) : settings_(path, QSettings::IniFormat) {}

QString preferences::path() const
{
    return settings_.fileName();
}

QString preferences::string_at(const char* key) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    QVariant value = settings_.value(key);
    return value.canConvert<QString>() ? value.toString() : QString();
}

unsigned preferences::unsigned_at(const char* key, unsigned fallback) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    bool ok = false;
    unsigned value = settings_.value(key).toString().toUInt(&ok);
    return ok ? value : fallback;
}

bool preferences::bool_at(const char* key, bool fallback) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    QString value = settings_.value(key).toString();
    if (value == "true" || value == "1")
        return true;
    if (value == "false" || value == "0")
        return false;
    return fallback;
}

void preferences::store(const char* key, const QVariant& value)
{
    std::lock_guard<std::mutex> lock(mutex_);
    settings_.setValue(key, value);
    settings_.sync();
    // The file may hold the machine's secret: it is the user's alone.
    QFile::setPermissions(settings_.fileName(), QFile::ReadOwner | QFile::WriteOwner);
}

QString preferences::secret() const
{
    return string_at(keys::secret);
}

void preferences::set_secret(const QString& secret)
{
    store(keys::secret, secret);
}

QString preferences::username() const
{
    return string_at(keys::username);
}

QString preferences::avatar() const
{
    return string_at(keys::avatar);
}

void preferences::set_owner(const QString& username, const QString& avatar)
{
    store(keys::username, username);
    store(keys::avatar, avatar);
}

std::optional<const char*> preferences::permission_key(source_type::type kind)
{
    switch (kind) {
    case source_type::screen: return keys::permission_screen;
    case source_type::window: return keys::permission_window;
    case source_type::audio: return keys::permission_audio;
    case source_type::video: return keys::permission_video;
    case source_type::none: break;
    }
    return std::nullopt;
}

unsigned preferences::permission_value(source_type::type kind) const
{
    auto key = permission_key(kind);
    return key ? unsigned_at(*key, default_permission) : static_cast<unsigned>(permission::deny);
}

void preferences::set_permission(source_type::type kind, unsigned value)
{
    if (auto key = permission_key(kind))
        store(*key, value);
}

bool preferences::has_set_permissions() const
{
    return bool_at(keys::has_set_permissions, false);
}

void preferences::set_has_set_permissions(bool set)
{
    store(keys::has_set_permissions, set);
}

unsigned preferences::profile() const
{
    return unsigned_at(keys::profile, default_profile);
}

void preferences::set_profile(unsigned level)
{
    store(keys::profile, level);
}

bool preferences::ignore_audio_device_events() const
{
    return bool_at(keys::ignore_audio_device_events, false);
}

void preferences::set_ignore_audio_device_events(bool ignore)
{
    store(keys::ignore_audio_device_events, ignore);
}

unsigned preferences::max_streams() const
{
    unsigned count = unsigned_at(keys::max_streams, 0);
    return count <= static_cast<unsigned>(obs::highest_stream_limit) ? count : 0;
}

void preferences::set_max_streams(unsigned count)
{
    store(keys::max_streams, count);
}

void preferences::reset()
{
    std::lock_guard<std::mutex> lock(mutex_);
    settings_.clear();
    settings_.sync();
    QFile::remove(settings_.fileName());
}

} // namespace orbweave::app
