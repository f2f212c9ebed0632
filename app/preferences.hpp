#pragma once

// The user's preferences: one typed accessor per key, the registered defaults in
// one table, kept in an INI file ($XDG_CONFIG_HOME/orbweave/orbweave.conf). Values
// that are missing or unreadable read as their defaults. Safe from any thread.

#include "core/callback.hpp"

#include <QSettings>
#include <QString>

#include <mutex>
#include <optional>

namespace orbweave::app {

/// The preference keys, as stored.
namespace keys {
inline constexpr const char* secret = "clientSecret";
inline constexpr const char* username = "clientUsername";
inline constexpr const char* avatar = "clientAvatar";
inline constexpr const char* permission_audio = "clientPermissionAudio";
inline constexpr const char* permission_screen = "clientPermissionScreen";
inline constexpr const char* permission_window = "clientPermissionWindow";
inline constexpr const char* permission_video = "clientPermissionVideo";
inline constexpr const char* has_set_permissions = "clientHasSetPermissions";
inline constexpr const char* shown_first_close_message = "clientShownFirstCloseMessage";
inline constexpr const char* profile = "clientProfile";
inline constexpr const char* ignore_audio_device_events = "clientIgnoreAudioDeviceEvents";
inline constexpr const char* max_streams = "clientMaxStreams";
} // namespace keys

/// What the user chose for a kind of source; the number is the permissions view's item.
enum class permission : unsigned { ask = 0, deny = 1, always_allow = 2 };

/// $XDG_CONFIG_HOME, else ~/.config: where the app's files and its autostart entry live.
QString config_home();
/// $XDG_STATE_HOME, else ~/.local/state: where the app keeps what it learns (the
/// desktop portal's restore tokens).
QString state_home();

class preferences {
public:
    /// $XDG_CONFIG_HOME/orbweave/orbweave.conf, else ~/.config/orbweave/orbweave.conf.
    static QString default_path();

    explicit preferences(const QString& path = default_path());

    /// The secret, when no keyring keeps it (secret_keeper decides).
    QString secret() const;
    void set_secret(const QString& secret);
    QString username() const;
    QString avatar() const;
    /// The owner's details from a pairing.
    void set_owner(const QString& username, const QString& avatar);

    /// The key of a source kind's permission; none for a kind outside screen..video.
    static std::optional<const char*> permission_key(callback::source_type::type kind);
    /// The stored value for a kind (2, always allow, by default); any number may be stored.
    unsigned permission_value(callback::source_type::type kind) const;
    void set_permission(callback::source_type::type kind, unsigned value);

    bool has_set_permissions() const;
    void set_has_set_permissions(bool set);
    /// The quality level (0 low .. 3 extreme; 1 medium by default).
    unsigned profile() const;
    void set_profile(unsigned level);
    bool ignore_audio_device_events() const;
    void set_ignore_audio_device_events(bool ignore);
    /// At most this many streams at once; 0 (the default, and any value out of range):
    /// as many as the machine carries. Read at launch; --max-streams overrides it.
    unsigned max_streams() const;
    void set_max_streams(unsigned count);

    /// Removes every stored value: the file itself goes, and every key reads its default.
    void reset();

    QString path() const;

private:
    unsigned unsigned_at(const char* key, unsigned fallback) const;
    bool bool_at(const char* key, bool fallback) const;
    QString string_at(const char* key) const;
    void store(const char* key, const QVariant& value);

    mutable std::mutex mutex_;
    mutable QSettings settings_;
};

} // namespace orbweave::app
