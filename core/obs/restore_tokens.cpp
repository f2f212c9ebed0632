#include "core/obs/restore_tokens.hpp"

#include "core/json.hpp"
#include "core/log.hpp"
#include "core/private_file.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

namespace orbweave::obs {

namespace {

// The file: {"account": NAME, "tokens": {SOURCE_ID: TOKEN, ...}}.
struct kept {
    std::string account;
    Json tokens = Json::object();
};

/// What the file holds; anything but the shape above reads as nothing kept (an older
/// file whose account is unknown asks the user again, once).
kept read_all(const std::string& path)
{
    kept result;
    std::ifstream in(path);
    if (!in)
        return result;
    std::stringstream text;
    text << in.rdbuf();
    Json value = json::parse(text.str());
    if (!value.is_object() || !value["account"].is_string() || !value["tokens"].is_object())
        return result;
    result.account = value["account"].get<std::string>();
    result.tokens = value["tokens"];
    return result;
}

} // namespace

restore_tokens::restore_tokens(std::string path) : path_(std::move(path)) {}

std::string restore_tokens::get(const std::string& id) const
{
    if (path_.empty())
        return {};
    std::lock_guard<std::mutex> lock(mutex_);
    return json::string_at(read_all(path_).tokens, {id});
}

std::uint64_t restore_tokens::consent() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return consent_;
}

void restore_tokens::put(const std::string& id, const std::string& token, std::uint64_t consent)
{
    if (path_.empty())
        return;
    std::lock_guard<std::mutex> lock(mutex_);
    if (consent != consent_)
        return;
    kept all = read_all(path_);
    if (token.empty())
        all.tokens.erase(id);
    else
        all.tokens[id] = token;
    // On failure (logged) the next start asks the user again.
    write_private_file(path_, json::dump(Json{{"account", account_}, {"tokens", all.tokens}}));
}

void restore_tokens::forget()
{
    std::lock_guard<std::mutex> lock(mutex_);
    forget_locked();
}

void restore_tokens::paired_with(const std::string& account)
{
    std::lock_guard<std::mutex> lock(mutex_);
    // Tokens of another account in the file, or a start of this run that may still bring one.
    bool switched = (paired_ && account_ != account) ||
                    (!path_.empty() && [&] {
                        kept all = read_all(path_);
                        return !all.tokens.empty() && all.account != account;
                    }());
    account_ = account;
    paired_ = true;
    if (!switched)
        return;
    log::line("Paired with another account: the screen-cast choices made for the last one are forgotten");
    forget_locked();
}

void restore_tokens::forget_locked()
{
    ++consent_;
    if (path_.empty())
        return;
    if (std::remove(path_.c_str()) != 0 && errno != ENOENT)
        log::line("Could not remove " + path_ + ": " + std::strerror(errno));
}

} // namespace orbweave::obs
