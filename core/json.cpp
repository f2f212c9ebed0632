#include "core/json.hpp"

#include <algorithm>
#include <array>
#include <limits>

namespace orbweave::json {

namespace {

const Json& null_value()
{
    static const Json null;
    return null;
}

// A restore token lets its holder stream a screen without the desktop asking again.
constexpr std::array<std::string_view, 3> secret_keys{"secret", "key", "restoreToken"};

bool is_secret_key(std::string_view key)
{
    for (auto secret : secret_keys)
        if (key == secret)
            return true;
    return false;
}

// Returns true when anything was replaced.
bool redact_in_place(Json& value)
{
    bool changed = false;
    if (value.is_object()) {
        for (auto& [key, member] : value.items()) {
            if (is_secret_key(key)) {
                member = "***";
                changed = true;
            } else {
                changed = redact_in_place(member) || changed;
            }
        }
    } else if (value.is_array()) {
        for (auto& element : value)
            changed = redact_in_place(element) || changed;
    }
    return changed;
}

} // namespace

const Json& at(const Json& value, std::initializer_list<std::string_view> path)
{
    const Json* current = &value;
    for (auto key : path) {
        if (!current->is_object())
            return null_value();
        auto found = current->find(key);
        if (found == current->end())
            return null_value();
        current = &*found;
    }
    return *current;
}

std::string string_at(const Json& value, std::initializer_list<std::string_view> path)
{
    const Json& found = at(value, path);
    return found.is_string() ? found.get<std::string>() : std::string{};
}

int int_at(const Json& value, std::initializer_list<std::string_view> path)
{
    const Json& found = at(value, path);
    if (found.is_number_integer())
        return static_cast<int>(found.get<std::int64_t>());
    if (found.is_number_float()) {
        double number = found.get<double>();
        if (number != number || number >= 2147483648.0 || number < -2147483648.0)
            return std::numeric_limits<int>::min();
        return static_cast<int>(number);
    }
    return 0;
}

bool bool_at(const Json& value, std::initializer_list<std::string_view> path)
{
    const Json& found = at(value, path);
    return found.is_boolean() && found.get<bool>();
}

bool is_number_at(const Json& value, std::initializer_list<std::string_view> path)
{
    return at(value, path).is_number();
}

bool too_deep(std::string_view text)
{
    std::size_t depth = 0;
    bool in_string = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (in_string) {
            if (c == '\\')
                ++i; // the escaped character cannot end the string
            else if (c == '"')
                in_string = false;
        } else if (c == '"') {
            in_string = true;
        } else if (c == '[' || c == '{') {
            if (++depth > max_depth)
                return true;
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return false;
}

Json parse(std::string_view text)
{
    if (too_deep(text))
        return Json{};
    Json parsed = Json::parse(text, nullptr, /*allow_exceptions=*/false, /*ignore_comments=*/false);
    return parsed.is_discarded() ? Json{} : parsed;
}

std::string dump(const Json& value)
{
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json redacted(const Json& value)
{
    Json copy = value;
    redact_in_place(copy);
    return copy;
}

namespace {

// Cheap test first: most frames name no secret member and are logged as they came.
// A member name stands in quotes; each frame is searched without building strings.
bool names_secret(std::string_view text)
{
    return std::any_of(secret_keys.begin(), secret_keys.end(), [text](std::string_view secret) {
        for (auto at = text.find(secret); at != std::string_view::npos; at = text.find(secret, at + 1))
            if (at > 0 && text[at - 1] == '"' && at + secret.size() < text.size() && text[at + secret.size()] == '"')
                return true;
        return false;
    });
}

} // namespace

std::string redacted_text(std::string_view text, const Json& parsed)
{
    if (!names_secret(text))
        return std::string(text);
    if (parsed.is_null())
        return "(" + std::to_string(text.size()) + " bytes that are not JSON)";
    Json copy = parsed;
    if (!redact_in_place(copy))
        return std::string(text);
    return dump(copy);
}

std::string redacted_text(std::string_view text)
{
    return names_secret(text) ? redacted_text(text, parse(text)) : std::string(text);
}

} // namespace orbweave::json
