#include "core/check/report.hpp"

#include <cstdio>

namespace orbweave::check {

const char* status_name(status level)
{
    switch (level) {
    case status::warn: return "warn";
    case status::fail: return "fail";
    case status::ok: break;
    }
    return "ok";
}

bool report::can_stream() const
{
    for (const item& entry : items)
        if (entry.level == status::fail)
            return false;
    return true;
}

std::string line(const item& entry)
{
    char head[32];
    std::snprintf(head, sizeof head, "%-5s %-10s ", status_name(entry.level), entry.name.c_str());
    std::string text = head + entry.found;
    if (entry.level != status::ok && !entry.fix.empty())
        text += "; to fix: " + entry.fix;
    return text;
}

std::string report::text() const
{
    std::string text;
    int counts[3] = {0, 0, 0};
    for (const item& entry : items) {
        text += line(entry) + "\n";
        ++counts[static_cast<int>(entry.level)];
    }
    char summary[160];
    std::snprintf(summary, sizeof summary, "%s (%zu checks: %d ok, %d warn, %d fail) in %.1f s\n",
                  can_stream() ? "a stream can work here" : "a stream cannot work here", items.size(), counts[0],
                  counts[1], counts[2], static_cast<double>(elapsed_ms) / 1000.0);
    return text + summary;
}

Json report::to_json() const
{
    Json checks = Json::array();
    for (const item& entry : items)
        checks.push_back({{"name", entry.name},
                          {"status", status_name(entry.level)},
                          {"found", entry.found},
                          {"fix", entry.fix},
                          {"details", entry.details}});
    return {{"can_stream", can_stream()}, {"elapsed_ms", elapsed_ms}, {"checks", checks}};
}

} // namespace orbweave::check
