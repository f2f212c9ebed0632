#include "core/obs/entries.hpp"
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

TEST(SystemInfo, FingerprintIsTheHashOfSerialThenFamilyAndName)
{
    EXPECT_EQ(system_info::fingerprint(),
              detail::unique_hash(system_info::os_uuid(), system_info::os_name() + system_info::machine_name()));
    // Two machines with the same name and no serial share a fingerprint; a rename changes it.
    EXPECT_EQ(detail::unique_hash("", "Machost"), detail::unique_hash("", "Machost"));
    EXPECT_NE(detail::unique_hash("", "Machost"), detail::unique_hash("", "Machost2"));
    // The serial and the text are fed one after the other, not separated.
    EXPECT_EQ(detail::unique_hash("ab", "c"), detail::unique_hash("a", "bc"));
    EXPECT_NE(detail::unique_hash("serial-1", "x"), detail::unique_hash("serial-2", "x"));
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
    EXPECT_EQ(obs::get_source_info(windows, window.id), window.to_json());
    EXPECT_EQ(obs::get_source_info(windows, create_unique_hash("Window7"))["name"], "first");
    EXPECT_EQ(obs::get_source_info(windows, "nope"), Json::object());
    EXPECT_EQ(obs::to_json(windows).size(), 3u);
}

} // namespace
} // namespace orbweave
