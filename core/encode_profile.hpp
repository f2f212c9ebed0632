#pragma once

#include <cstdint>
#include <string>

namespace orbweave {

/// Stream quality levels; the numbers are stored by front ends as preferences.
struct profile_type {
    enum type : std::int32_t { low = 0, medium = 1, high = 2, extreme = 3 };
    /// "medium", "high", "extreme" exactly (case-sensitive); anything else is low.
    static type parse(const std::string& text);
    static const char* name(type level);
};

/// The level the user picked and the bitrate (kbps) the bandwidth probe recommended.
struct encode_profile {
    profile_type::type profile = profile_type::low;
    std::int32_t bitrate = 1500;
};

} // namespace orbweave
