#pragma once

#include <string>

namespace orbweave::agent {

/// The machine's secret in a file only its owner can read (mode 0600) inside a
/// directory only its owner can enter (0700). Replaced atomically, so a crash
/// never leaves half a secret.
class secret_store {
public:
    explicit secret_store(std::string dir);

    /// The stored secret, or "" when there is none.
    std::string load() const;
    /// Stores secret; false (with a logged reason) when it cannot.
    bool save(const std::string& secret) const;
    /// Forgets the secret.
    void erase() const;
    std::string path() const;

private:
    std::string dir_;
};

} // namespace orbweave::agent
