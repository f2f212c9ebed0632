#include "core/encode_profile.hpp"

namespace orbweave {

profile_type::type profile_type::parse(const std::string& text)
{
    if (text == "medium") return medium;
    if (text == "high") return high;
    if (text == "extreme") return extreme;
    return low;
}

const char* profile_type::name(type level)
{
    switch (level) {
    case medium: return "medium";
    case high: return "high";
    case extreme: return "extreme";
    case low: break;
    }
    return "low";
}

} // namespace orbweave
