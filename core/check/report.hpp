#pragma once

// "Check this computer": the answer of `orbweave-agent --check` and `orbweave --check`.
// One item per check, each ok, warn or fail, with what was found and, for anything not
// ok, what to do about it. A stream can work when nothing failed.

#include "core/json.hpp"

#include <string>
#include <vector>

namespace orbweave::check {

enum class status { ok, warn, fail };

/// "ok", "warn", "fail".
const char* status_name(status level);

struct item {
    std::string name;  ///< short and stable: "display", "portal", "h264", ...
    status level = status::ok;
    std::string found; ///< what the check saw, for a person
    std::string fix;   ///< what to do; empty when ok
    Json details = Json::object(); ///< the raw findings, for scripts and support
};

struct report {
    std::vector<item> items;
    long long elapsed_ms = 0;

    /// No check failed: what the service relies on works here.
    bool can_stream() const;
    /// 0 when a stream can work, 1 otherwise: the commands' exit status.
    int exit_status() const { return can_stream() ? 0 : 1; }
    /// One line per item ("warn  sound      FOUND; to fix: FIX") and a last summary line.
    std::string text() const;
    /// {"can_stream":bool,"elapsed_ms":n,"checks":[{"name","status","found","fix","details"}]}
    Json to_json() const;
};

/// One item's line, without newline.
std::string line(const item& entry);

} // namespace orbweave::check
