#pragma once

// The machine's secret, which lets anyone stream this machine's screen: kept in
// the Secret Service keyring (service "orbweave", key "clientSecret") when one
// answers, else in the preferences file, which is kept at mode 0600, and the log
// says so once. Never written to a log.

#include "app/preferences.hpp"

#include <QObject>

#include <functional>
#include <mutex>
#include <string>

namespace orbweave::app {

class secret_keeper : public QObject {
public:
    explicit secret_keeper(preferences& preferences);

    /// Reads the stored secret without blocking; ready runs on this object's thread once it
    /// is known (the client connects only then, so it presents the secret it has).
    void load(std::function<void()> ready);
    /// The secret as last loaded or stored; from any thread.
    std::string secret() const;
    /// Keeps a new secret: at once for secret(), and written from this object's thread.
    void store(const std::string& secret);
    /// Forgets the secret everywhere it may be kept (sign-out).
    void erase();
    /// Whether the keyring answered (false: the preferences file holds the secret).
    bool in_keyring() const;

private:
    void write(const std::string& secret);
    void fall_back(const QString& why);

    preferences& preferences_;
    mutable std::mutex mutex_;
    std::string secret_;
    bool keyring_ = true;
};

} // namespace orbweave::app
