#include "core/callback.hpp"
#include "core/json.hpp"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace orbweave {
namespace {

TEST(Json, LenientAccessorsAnswerDefaultsForMissingOrMistypedValues)
{
    Json message = json::parse(R"({"id":"activate","state":7,"payload":{"source":{"id":"abc","type":5},
        "options":{"width":1280.9,"height":"720","flag":true}}})");

    EXPECT_EQ(json::string_at(message, {"payload", "source", "id"}), "abc");
    EXPECT_EQ(json::string_at(message, {"payload", "source", "type"}), "");   // a number, not a string
    EXPECT_EQ(json::string_at(message, {"state"}), "");                       // 7 is not a string
    EXPECT_EQ(json::string_at(message, {"payload", "nothing", "here"}), "");  // missing steps
    EXPECT_EQ(json::string_at(message, {"id", "deeper"}), "");                // step through a string
    EXPECT_EQ(json::int_at(message, {"payload", "options", "width"}), 1280);  // truncated
    EXPECT_EQ(json::int_at(message, {"payload", "options", "height"}), 0);    // a string
    EXPECT_TRUE(json::is_number_at(message, {"payload", "options", "width"}));
    EXPECT_FALSE(json::is_number_at(message, {"payload", "options", "height"}));
    EXPECT_TRUE(json::bool_at(message, {"payload", "options", "flag"}));
    EXPECT_FALSE(json::bool_at(message, {"payload", "options", "width"}));
    EXPECT_TRUE(json::at(message, {"missing"}).is_null());
    EXPECT_EQ(json::at(message, {"state"}), 7);
}

TEST(Json, ParseGivesNullForAnythingButStrictJson)
{
    EXPECT_TRUE(json::parse("not json").is_null());
    EXPECT_TRUE(json::parse("").is_null());
    EXPECT_TRUE(json::parse(R"({"a":1} // comment)").is_null());
    EXPECT_TRUE(json::parse(R"({"a":1,})").is_null());
    EXPECT_EQ(json::parse(R"( {"a": [1, 2]} )"), Json({{"a", {1, 2}}}));
}

TEST(Json, NestingIsBoundedBeforeAnythingWalksTheDocument)
{
    auto nested = [](std::size_t depth, char open = '[', char close = ']') {
        return std::string(depth, open) + std::string(depth, close);
    };
    EXPECT_TRUE(json::parse(nested(json::max_depth)).is_array());
    EXPECT_TRUE(json::parse(nested(json::max_depth + 1)).is_null());
    // A document 200,000 levels deep (400 kB, inside the message size limit) used to
    // overflow the stack; it is refused like any other non-JSON, and logged by size only.
    std::string frame = R"({"id":"x","payload":{"secret":"s","deep":)" + nested(200000) + "}}";
    EXPECT_TRUE(json::parse(frame).is_null());
    EXPECT_EQ(json::redacted_text(frame), "(" + std::to_string(frame.size()) + " bytes that are not JSON)");
    // Brackets inside strings, and escaped quotes, do not count.
    std::string quoted = "[\"" + nested(200, '{', '}') + "\\\"[[[\"]";
    EXPECT_TRUE(json::parse(quoted).is_array()) << quoted;
}

TEST(Json, DumpSortsKeysAndNeverThrows)
{
    Json value = {{"state", ""}, {"id", "identify"}, {"payload", {{"zeta", 1}, {"alpha", 2}}}};
    EXPECT_EQ(json::dump(value), R"({"id":"identify","payload":{"alpha":2,"zeta":1},"state":""})");
    EXPECT_NO_THROW(json::dump(Json(std::string("bad \xff utf8"))));
}

TEST(Json, RedactionHidesSecretsAndKeysAtAnyDepthAndLeavesTheRest)
{
    Json value = json::parse(R"({"id":"ready","payload":{"secret":"s3cr3t","owner":{"displayName":"Ann"},
        "list":[{"service":{"server":"rtmp://x/live","key":"k3y"}}]}})");
    Json hidden = json::redacted(value);
    EXPECT_EQ(json::string_at(hidden, {"payload", "secret"}), "***");
    EXPECT_EQ(hidden["payload"]["list"][0]["service"]["key"], "***");
    EXPECT_EQ(hidden["payload"]["list"][0]["service"]["server"], "rtmp://x/live");
    EXPECT_EQ(json::string_at(hidden, {"payload", "owner", "displayName"}), "Ann");
    EXPECT_EQ(json::string_at(value, {"payload", "secret"}), "s3cr3t");  // the original is untouched

    EXPECT_EQ(json::redacted_text(R"({"id":"code", "payload" : {"secret":"s"}})"),
              R"({"id":"code","payload":{"secret":"***"}})");
    // Frames without secrets are logged exactly as they came, spacing included.
    EXPECT_EQ(json::redacted_text(R"({"id": "list",  "payload": {"type": "key"}})"),
              R"({"id": "list",  "payload": {"type": "key"}})");
    // A frame that names a secret member but cannot be read may still carry the secret.
    EXPECT_EQ(json::redacted_text("not json with \"key\""), "(19 bytes that are not JSON)");
    EXPECT_EQ(json::redacted_text("not json at all"), "not json at all");
}

TEST(CallbackTypes, ARequestIsAnsweredExactlyOnceAcrossCopiesAndThreads)
{
    std::atomic<int> calls{0};
    std::atomic<bool> last{false};
    callback::request request([&](bool allowed) {
        ++calls;
        last = allowed;
    });
    callback::request copy = request;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([copy, i] { copy.answer(i % 2 == 0); });
    for (auto& thread : threads)
        thread.join();
    request.answer(false);
    EXPECT_EQ(calls, 1);

    callback::request empty;
    EXPECT_FALSE(empty);
    EXPECT_NO_THROW(empty.answer(true));
}

} // namespace
} // namespace orbweave
