#pragma once

// The desktop portal's restore tokens, one per screen source id, kept in a file of the
// client's state folder (mode 0600): with the token the desktop restores the user's
// earlier choice of screen without asking again, also after a restart. A token is
// single-use, so each successful start replaces it.
//
// A token is the user's consent to share a screen with the account the client was
// paired with when it was granted, so the file names that account beside the tokens,
// and the tokens go with the pairing: forgotten on a reset or sign-out, and when the
// client is paired with another account.

#include <cstdint>
#include <mutex>
#include <string>

namespace orbweave::obs {

class restore_tokens {
public:
    /// Tokens kept in the file at path; an empty path keeps none.
    explicit restore_tokens(std::string path = {});

    /// The token for a source id; "" when there is none.
    std::string get(const std::string& id) const;
    /// The consent a token granted from now on belongs to; it changes whenever the tokens
    /// are forgotten. Read it before a start, and hand it to put() after.
    std::uint64_t consent() const;
    /// Keeps token for id (an empty token removes it), unless the tokens were forgotten
    /// since consent was read: a start that ran across a reset must not bring its token
    /// back. Failures are logged, not thrown: the next start then asks the user again.
    void put(const std::string& id, const std::string& token, std::uint64_t consent);
    /// Forgets every token (the file goes), so the desktop's picker asks again.
    void forget();
    /// The client is paired with account (the name the service gives its owner): tokens
    /// kept for another account, or for none known, are forgotten, and the tokens granted
    /// from now on are kept for this one.
    void paired_with(const std::string& account);

    const std::string& path() const { return path_; }

private:
    void forget_locked();

    std::string path_;
    mutable std::mutex mutex_;
    std::uint64_t consent_ = 0;
    // The account of the current pairing, as far as this process has heard of it.
    std::string account_;
    bool paired_ = false;
};

} // namespace orbweave::obs
