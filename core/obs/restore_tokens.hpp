#pragma once

// The desktop portal's restore tokens, one per screen source id, kept in a file of the
// client's state folder (mode 0600): with the token the desktop restores the user's
// earlier choice of screen without asking again, also after a restart. A token is
// single-use, so each successful start replaces it.

#include <mutex>
#include <string>

namespace orbweave::obs {

class restore_tokens {
public:
    /// Tokens kept in the file at path; an empty path keeps none.
    explicit restore_tokens(std::string path = {});

    /// The token for a source id; "" when there is none.
    std::string get(const std::string& id) const;
    /// Keeps token for id (an empty token removes it). Failures are logged, not thrown:
    /// the next start then asks the user again.
    void put(const std::string& id, const std::string& token);

    const std::string& path() const { return path_; }

private:
    std::string path_;
    mutable std::mutex mutex_;
};

} // namespace orbweave::obs
