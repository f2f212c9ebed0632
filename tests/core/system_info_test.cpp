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

} // namespace
} // namespace orbweave
