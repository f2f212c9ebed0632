#include "core/obs/restore_tokens.hpp"

#include "core/json.hpp"
#include "core/private_file.hpp"

#include <fstream>
#include <sstream>

namespace orbweave::obs {

namespace {

Json read_all(const std::string& path)
{
    std::ifstream in(path);
    if (!in)
        return Json::object();
    std::stringstream text;
    text << in.rdbuf();
    Json value = json::parse(text.str());
    return value.is_object() ? value : Json::object();
}

} // namespace

restore_tokens::restore_tokens(std::string path) : path_(std::move(path)) {}

std::string restore_tokens::get(const std::string& id) const
{
    if (path_.empty())
        return {};
    std::lock_guard<std::mutex> lock(mutex_);
    return json::string_at(read_all(path_), {id});
}

void restore_tokens::put(const std::string& id, const std::string& token)
{
    if (path_.empty())
        return;
    std::lock_guard<std::mutex> lock(mutex_);
    Json all = read_all(path_);
    if (token.empty())
        all.erase(id);
    else
        all[id] = token;
    // On failure (logged) the next start asks the user again.
    write_private_file(path_, json::dump(all));
}

} // namespace orbweave::obs
