#pragma once

#include <utility>

namespace orbweave::obs {

/// The size X reports for the window xid, through a connection of our own (so a window
/// that is gone comes back as a value, not an X error); (0, 0) when there is no such window.
std::pair<int, int> x11_window_size(long long xid);

} // namespace orbweave::obs
