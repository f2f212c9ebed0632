#pragma once

// JSON values and the lenient accessors every protocol handler reads through.
// A missing key, a step through a non-object or a value of the wrong type reads
// as "", 0, false or null, the answers the service's other clients have always
// given, so handlers read like the protocol instead of like error handling.

#include <nlohmann/json.hpp>

#include <initializer_list>
#include <string>
#include <string_view>

namespace orbweave {

using Json = nlohmann::json;

namespace json {

/// The value at a path of object keys; null when any step is missing or not an object.
const Json& at(const Json& value, std::initializer_list<std::string_view> path);

/// The string at a path; "" when missing or not a string.
std::string string_at(const Json& value, std::initializer_list<std::string_view> path);

/// The integer at a path (a fractional number is truncated); 0 when missing or not a number.
int int_at(const Json& value, std::initializer_list<std::string_view> path);

/// The bool at a path; false when missing or not a bool.
bool bool_at(const Json& value, std::initializer_list<std::string_view> path);

/// Whether the value at a path is a JSON number.
bool is_number_at(const Json& value, std::initializer_list<std::string_view> path);

/// How deeply a received document may nest arrays and objects. The protocol's own
/// documents are a few levels deep; deeper ones are refused before they are parsed,
/// so no walk over a document (parsing, redaction, logging, destruction) can exhaust
/// the stack.
inline constexpr std::size_t max_depth = 64;

/// The text parsed as strict JSON (no comments); null when it is not JSON or nests
/// deeper than max_depth.
Json parse(std::string_view text);

/// Whether the text nests arrays and objects deeper than max_depth (strings skipped).
bool too_deep(std::string_view text);

/// Compact text with object keys in sorted order; invalid UTF-8 is replaced, never thrown.
std::string dump(const Json& value);

/// A copy in which the value of every "secret", "key" and "restoreToken" member, at any
/// depth, is "***".
Json redacted(const Json& value);

/// The text to log for a frame, given the frame and what parse() made of it: the text
/// itself, or the parsed document redacted when it carries a secret; a frame that names
/// a secret member but is not JSON is not logged, only its size.
std::string redacted_text(std::string_view text, const Json& parsed);
/// The same for a frame not parsed yet: it is parsed only when it names a secret member.
std::string redacted_text(std::string_view text);

} // namespace json
} // namespace orbweave
