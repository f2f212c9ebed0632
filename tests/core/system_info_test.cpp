#include "core/obs/entries.hpp"
#include "core/obs/pipe_protocol.hpp"
#include "core/obs/requests.hpp"
#include "core/system_info.hpp"

#include <gtest/gtest.h>

#include <regex>

namespace orbweave {
namespace {

bool is_hex64(const std::string& text)
{
    return std::regex_match(text, std::regex("[0-9a-f]{64}"));
}

TEST(SystemInfo, IdentityFactsHaveTheShapesTheServiceExpects)
{
    EXPECT_EQ(system_info::os_name(), "Mac");
    EXPECT_TRUE(std::regex_match(system_info::os_version(), std::regex(R"(OSX \d+\.\d+\.\d+)")))
        << system_info::os_version();
    EXPECT_FALSE(system_info::machine_name().empty());
    EXPECT_TRUE(is_hex64(system_info::fingerprint()));
    EXPECT_EQ(system_info::fingerprint(), system_info::fingerprint());
}

TEST(SystemInfo, HashMatchesKnownBlake2bVector)
{
    // BLAKE2b-256 of the empty input.
    EXPECT_EQ(detail::unique_hash("", ""), "0e5751c026e543b2e8ab2eb06099daa1d1e5df47778f7787faab45cdf12fe3a8");
    EXPECT_TRUE(is_hex64(create_unique_hash("Screen0")));
    EXPECT_EQ(create_unique_hash("Screen0"), detail::unique_hash(system_info::os_uuid(), "Screen0"));
}

TEST(SystemInfo, VersionAndNameParsing)
{
    EXPECT_EQ(detail::os_version_from_release("6.1.0-18-amd64"), "OSX 6.1.0");
    EXPECT_EQ(detail::os_version_from_release("5.15.153.1-microsoft"), "OSX 5.15.153");
    EXPECT_EQ(detail::os_version_from_release("6.8"), "OSX 6.8.0");
    EXPECT_EQ(detail::os_version_from_release(""), "OSX 0.0.0");
    EXPECT_EQ(detail::pretty_hostname_from("CHASSIS=laptop\nPRETTY_HOSTNAME=\"Ann's Laptop\"\n"), "Ann's Laptop");
    EXPECT_EQ(detail::pretty_hostname_from("PRETTY_HOSTNAME=studio\n"), "studio");
    EXPECT_EQ(detail::pretty_hostname_from("CHASSIS=server\n"), "");
}

TEST(Entries, JsonFormsCarryTheServicesKeysAndRoundTrip)
{
    obs::screen_entry screen(1, "Display 2", "1024x768", 0, 0, 1024, 768);
    Json s = screen.to_json();
    EXPECT_EQ(s["type"], "Screen");
    EXPECT_EQ(s["id"], create_unique_hash("Screen1"));
    EXPECT_EQ(s["index"], 1);
    EXPECT_EQ(s["isActive"], false);
    EXPECT_EQ(s["properties"], Json::parse(R"({"Top":{"value":0},"Left":{"value":0},
        "Width":{"value":1024},"Height":{"value":768}})"));
    EXPECT_EQ(obs::screen_entry::from_json(s).to_json(), s);

    obs::window_entry window("xterm", "shell", 0x400007);
    EXPECT_EQ(window.to_json()["pid"], 0x400007);
    EXPECT_EQ(window.id, create_unique_hash("Window" + std::to_string(0x400007)));
    EXPECT_EQ(obs::window_entry::from_json(window.to_json()).to_json(), window.to_json());

    obs::audio_entry output("Null", "Null", "null.monitor", false);
    obs::audio_entry input("Null", "Null", "null", true);
    EXPECT_NE(output.id, input.id);
    EXPECT_EQ(output.id, create_unique_hash("AudioOutputNull"));
    EXPECT_EQ(input.to_json()["input"], true);
    EXPECT_EQ(obs::audio_entry::from_json(input.to_json()).to_json(), input.to_json());

    obs::video_entry camera("Cam", "Cam", "/dev/video0", "Cam");
    EXPECT_EQ(camera.id, create_unique_hash("Video/dev/video0"));
    EXPECT_EQ(obs::video_entry::from_json(camera.to_json()).to_json(), camera.to_json());

    std::vector<obs::window_entry> windows{window, obs::window_entry("first", "dup", 7),
                                           obs::window_entry("second", "dup", 7)};
    auto found = obs::find_entry(windows, create_unique_hash("Window7"));
    ASSERT_TRUE(found);
    EXPECT_EQ(obs::entry_name(*found), "first");
    EXPECT_EQ(obs::entry_kind(*found), callback::source_type::window);
    EXPECT_FALSE(obs::find_entry(windows, "nope"));
    EXPECT_EQ(obs::to_json(windows).size(), 3u);
}

Json activate_message(const Json& payload)
{
    return Json{{"id", "activate"}, {"state", "s1"}, {"payload", payload}};
}

TEST(Requests, AnActivateIsReadOnceWithTheProtocolsLenientRules)
{
    auto full = obs::activate_request::parse(activate_message(
        {{"source", {{"type", "SCREEN"}, {"id", "abc"}}},
         {"options", {{"profile", "high"}, {"width", 1280.7}, {"height", "720"}, {"fps", 60}}},
         {"service", {{"server", "rtmp://127.0.0.1/live"}, {"key", "k"}}}}));
    EXPECT_EQ(full.source.kind, callback::source_type::screen); // kinds in any letter case
    EXPECT_EQ(full.source.id, "abc");
    EXPECT_EQ(full.profile, profile_type::high);
    EXPECT_EQ(full.width, 1280);       // numbers truncate
    EXPECT_EQ(full.height, std::nullopt); // only JSON numbers count
    EXPECT_EQ(full.server, "rtmp://127.0.0.1/live");
    EXPECT_EQ(full.key, "k");

    // Levels compare exactly; anything else, or nothing, is low. Missing parts read empty.
    for (const Json& profile : {Json("High"), Json(2), Json()}) {
        auto request = obs::activate_request::parse(activate_message({{"options", {{"profile", profile}}}}));
        EXPECT_EQ(request.profile, profile_type::low) << profile;
        EXPECT_EQ(request.source.kind, callback::source_type::none);
        EXPECT_EQ(request.server, "");
    }
    EXPECT_EQ(obs::activate_request::parse(Json("not an object")).source.id, "");


    auto one = obs::deactivate_request::parse(Json{{"id", "deactivate"}, {"payload", {{"source", {{"id", "x"}}}}}});
    EXPECT_FALSE(one.all);
    EXPECT_EQ(one.id, "x");
    EXPECT_TRUE(obs::deactivate_request::parse(Json{{"id", "deactivate"}}).all);
    EXPECT_TRUE(obs::deactivate_request::parse(Json{{"id", "deactivate"}, {"payload", "all"}}).all);
}

TEST(Requests, AStreamOrderCrossesThePipeIntact)
{
    auto order = obs::pipe::stream_order::of(
        obs::activate_request::parse(activate_message({{"options", {{"profile", "medium"}, {"width", 640}}}})),
        obs::audio_entry("Mic", "USB Mic", "alsa_input.usb", true), 2500, "token-1");
    auto back = obs::pipe::stream_order::from_json(Json::parse(json::dump(order.to_json())));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->to_json(), order.to_json());
    EXPECT_EQ(back->restore_token, "token-1");
    // The token lets its holder stream a screen unasked: never in a log.
    EXPECT_EQ(json::dump(json::redacted(order.to_json())).find("token-1"), std::string::npos);
    obs::pipe::stream_result declined{false, "cancelled in the picker", true, ""};
    auto result = obs::pipe::stream_result::from_json(declined.to_json());
    EXPECT_TRUE(result.rejected);
    EXPECT_EQ(result.error, "cancelled in the picker");
    EXPECT_EQ(obs::pipe::stream_result::from_json(obs::pipe::stream_result{true, "", false, "token-2"}.to_json())
                  .restore_token,
              "token-2");
    ASSERT_TRUE(std::holds_alternative<obs::audio_entry>(back->source));
    EXPECT_TRUE(std::get<obs::audio_entry>(back->source).input);
    EXPECT_FALSE(obs::pipe::stream_order::from_json(Json{{"source", {{"type", "printer"}}}}));

    auto reply = obs::pipe::worker_line::parse(R"({"ok":false,"error":"no"})");
    EXPECT_EQ(reply.type, obs::pipe::worker_line::kind::reply);
    EXPECT_FALSE(reply.ok);
    EXPECT_EQ(reply.error, "no");
    auto event = obs::pipe::worker_line::parse(R"({"event":"stopped","error":"rtmp disconnected"})");
    EXPECT_EQ(event.type, obs::pipe::worker_line::kind::event);
    EXPECT_EQ(event.event, obs::pipe::stopped_event);
    EXPECT_EQ(obs::pipe::worker_line::parse("[1]").type, obs::pipe::worker_line::kind::invalid);
}

} // namespace
} // namespace orbweave
