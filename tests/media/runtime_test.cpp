// What a started libobs loads in the worker: the allow-listed plug-ins only (what
// they offer is exercised by every stream test), and the capture plug-ins' item formats.

#include "media/catalogue.hpp"
#include "media/runtime.hpp"
#include "media/unique_handle.hpp"

#include <obs.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <type_traits>

namespace orbweave::obs {
namespace {

static_assert(!std::is_copy_constructible_v<source_handle> && std::is_nothrow_move_constructible_v<source_handle> &&
              std::is_nothrow_move_assignable_v<source_handle>);

std::set<std::string> loaded_module_names()
{
    std::set<std::string> names;
    obs_enum_modules(
        [](void* param, obs_module_t* module) {
            std::string file = obs_get_module_file_name(module);
            static_cast<std::set<std::string>*>(param)->insert(file.substr(0, file.rfind('.')));
        },
        &names);
    return names;
}

TEST(Runtime, LoadsExactlyTheAllowedModules)
{
    std::set<std::string> allowed(allowed_modules().begin(), allowed_modules().end());
    EXPECT_EQ(loaded_module_names(), allowed);
    EXPECT_FALSE(allowed.count("rtmp-services")) << "rtmp-services fetches a services list from the internet";
    EXPECT_TRUE(std::filesystem::is_directory(config_directory()));
    EXPECT_EQ(config_directory(), std::string(std::getenv("XDG_CACHE_HOME")) + "/orbweave/obs");
}

} // namespace
} // namespace orbweave::obs

namespace orbweave::obs {
namespace {

TEST(CaptureItems, ScreenSizesAndWindowItemsAreReadFromThePluginFormats)
{
    unsigned long width = 0, height = 0;
    EXPECT_TRUE(detail::size_from_screen_label("Screen 1 (1024x768 @ 1280,0)", width, height));
    EXPECT_EQ(width, 1024u);
    EXPECT_EQ(height, 768u);
    EXPECT_TRUE(detail::size_from_screen_label("Screen DP-1 (2560x1440 @ 0,0)", width, height));
    EXPECT_EQ(width, 2560u);
    EXPECT_FALSE(detail::size_from_screen_label("Screen 0", width, height));
    long x = 0, y = 0;
    EXPECT_TRUE(detail::origin_from_screen_label("Screen HDMI-1 (1024x768 @ 1920,40)", x, y));
    EXPECT_EQ(x, 1920);
    EXPECT_EQ(y, 40);
    EXPECT_FALSE(detail::origin_from_screen_label("Screen 1 (not found)", x, y));

    long long xid = 0;
    std::string title, window_class;
    ASSERT_TRUE(detail::split_window_item("2097200\r\nOrb One\r\norbone", xid, title, window_class));
    EXPECT_EQ(xid, 2097200);
    EXPECT_EQ(title, "Orb One");
    EXPECT_EQ(window_class, "orbone");
    ASSERT_TRUE(detail::split_window_item("12\r\n\r\n", xid, title, window_class)) << "no title, no class";
    EXPECT_TRUE(title.empty() && window_class.empty());
    EXPECT_FALSE(detail::split_window_item("12\r\nno class", xid, title, window_class));
    EXPECT_FALSE(detail::split_window_item("x\r\nt\r\nc", xid, title, window_class));
}

} // namespace
} // namespace orbweave::obs
