// What the service reads in a list entry and sends in an activate, and what of it
// reaches the stream worker (the rest travels through every stream test).

#include "core/obs/entries.hpp"
#include "core/obs/pipe_protocol.hpp"
#include "core/obs/requests.hpp"
#include "core/system_info.hpp"

#include <gtest/gtest.h>

namespace orbweave::obs {
namespace {

TEST(Entries, CarryTheServicesKeysAndIdsHashedFromKindAndIdentity)
{
    Json screen = screen_entry(1, "Display 2", "1024x768", 0, 0, 1024, 768).to_json();
    EXPECT_EQ(screen["type"], "Screen");
    EXPECT_EQ(screen["id"], create_unique_hash("Screen1"));
    EXPECT_EQ(screen["index"], 1);
    EXPECT_EQ(screen["isActive"], false);
    EXPECT_EQ(screen["properties"], Json::parse(R"({"Top":{"value":0},"Left":{"value":0},
        "Width":{"value":1024},"Height":{"value":768}})"));

    window_entry window("xterm", "shell", 0x400007);
    EXPECT_EQ(window.to_json()["pid"], 0x400007);
    EXPECT_EQ(window.id, create_unique_hash("Window" + std::to_string(0x400007)));
    // A name listed both ways is two sources.
    audio_entry output("Null", "Null", "null.monitor", false);
    audio_entry input("Null", "Null", "null", true);
    EXPECT_EQ(output.id, create_unique_hash("AudioOutputNull"));
    EXPECT_EQ(input.id, create_unique_hash("AudioInputNull"));
    EXPECT_EQ(input.to_json()["input"], true);
    EXPECT_EQ(video_entry("Cam", "Cam", "/dev/video0", "Cam").id, create_unique_hash("Video/dev/video0"));

    // Two windows under one id: the first listed is the one found.
    std::vector<window_entry> windows{window, window_entry("first", "dup", 7), window_entry("second", "dup", 7)};
    auto found = find_entry(windows, create_unique_hash("Window7"));
    ASSERT_TRUE(found);
    EXPECT_EQ(entry_name(*found), "first");
    EXPECT_EQ(entry_kind(*found), callback::source_type::window);
    EXPECT_FALSE(find_entry(windows, "nope"));
}

Json activate_message(const Json& payload)
{
    return Json{{"id", "activate"}, {"state", "s1"}, {"payload", payload}};
}

TEST(Requests, AnActivateIsReadOnceWithTheProtocolsLenientRules)
{
    auto full = activate_request::parse(activate_message(
        {{"source", {{"type", "SCREEN"}, {"id", "abc"}}},
         {"options", {{"profile", "high"}, {"width", 1280.7}, {"height", "720"}, {"fps", 60}}},
         {"service", {{"server", "rtmp://127.0.0.1/live"}, {"key", "k"}}}}));
    EXPECT_EQ(full.source.kind, callback::source_type::screen); // kinds in any letter case
    EXPECT_EQ(full.source.id, "abc");
    EXPECT_EQ(full.profile, profile_type::high);
    EXPECT_EQ(full.width, 1280);          // numbers truncate
    EXPECT_EQ(full.height, std::nullopt); // only JSON numbers count
    EXPECT_EQ(full.server, "rtmp://127.0.0.1/live");
    EXPECT_EQ(full.key, "k");

    // Levels compare exactly; anything else, or nothing, is low. Missing parts read empty.
    for (const Json& profile : {Json("High"), Json(2), Json()}) {
        auto request = activate_request::parse(activate_message({{"options", {{"profile", profile}}}}));
        EXPECT_EQ(request.profile, profile_type::low) << profile;
        EXPECT_EQ(request.source.kind, callback::source_type::none);
        EXPECT_EQ(request.server, "");
    }
    EXPECT_EQ(activate_request::parse(Json("not an object")).source.id, "");

    auto one = deactivate_request::parse(Json{{"id", "deactivate"}, {"payload", {{"source", {{"id", "x"}}}}}});
    EXPECT_FALSE(one.all);
    EXPECT_EQ(one.id, "x");
    EXPECT_TRUE(deactivate_request::parse(Json{{"id", "deactivate"}}).all);
    EXPECT_TRUE(deactivate_request::parse(Json{{"id", "deactivate"}, {"payload", "all"}}).all);
}

TEST(Requests, AStreamOrderKeepsItsRestoreTokenOutOfTheLogAndRefusesAnUnknownSource)
{
    auto order = pipe::stream_order::of(activate_request::parse(activate_message({{"options", {{"width", 640}}}})),
                                        audio_entry("Mic", "USB Mic", "alsa_input.usb", true), 2500, "token-1");
    // The token lets its holder stream a screen unasked: never in a log.
    EXPECT_EQ(json::dump(json::redacted(order.to_json())).find("token-1"), std::string::npos);
    EXPECT_FALSE(pipe::stream_order::from_json(Json{{"source", {{"type", "printer"}}}}));
    EXPECT_EQ(pipe::worker_line::parse("[1]").type, pipe::worker_line::kind::invalid);
}

} // namespace
} // namespace orbweave::obs
