// The orbweave-service-sim program as a developer runs it: a console on its standard
// input and output, serving the client protocol with a CA it generates. The client
// on the other end is the product's own.

#include "core/obs/child_process.hpp"
#include "core/orbweave_client.hpp"
#include "tests/support/blocking_queue.hpp"
#include "tests/support/client_harness.hpp"
#include "tests/support/line_reader.hpp"
#include "tests/support/processes.hpp"
#include "tests/support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <csignal>
#include <filesystem>

namespace orbweave::test {
namespace {

using namespace std::chrono_literals;
using callback::state_type;

constexpr auto deadline = 5s;

TEST(ServiceSimProgram, ServesWithAGeneratedCaTakesConsoleCommandsAndOutlivesStdin)
{
    test::temp_dir scratch("orbweave-sim");
    std::filesystem::path dir = scratch.path() / "ca";
    auto spawn = test::command({ORBWEAVE_SERVICE_SIM_PROGRAM, "--port", "0", "--ca-dir", dir.string()});
    spawn.pipe_stdin = true;
    spawn.pipe_stdout = true;
    obs::child_process program(spawn);
    line_reader output(program.stdout_fd());
    auto command = [&](const std::string& line) {
        std::string text = line + "\n";
        ASSERT_EQ(::write(program.stdin_fd(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    };

    auto listening = output.wait_for_prefix("listening wss://127.0.0.1:", deadline);
    ASSERT_TRUE(listening);
    std::string url = listening->substr(std::string("listening ").size());
    EXPECT_EQ(test::mode_of(dir / "server.key"), 0600u);

    // The client trusts the CA the program wrote, identifies and is given a code.
    auto client = orbweave_client::create(url, fast_client_options((dir / "ca.pem").string()));
    blocking_queue<std::string> codes;
    blocking_queue<callback::msg::ready> readies;
    blocking_queue<state_type::type> states;
    std::string secret;
    client->set_new_code_handler([&](std::string code) { codes.push(code); });
    client->set_ready_handler([&](callback::msg::ready& ready) { readies.push(ready); });
    client->set_secret_handler([&] { return secret; });
    client->set_state_change_handler([&](state_type::type state) { states.push(state); });
    client->start();
    EXPECT_TRUE(output.wait_for_prefix("connected", deadline));
    auto code = codes.pop(deadline);
    ASSERT_TRUE(code);
    EXPECT_EQ(output.wait_for_prefix("code ", deadline), "code " + *code);

    command("claim " + *code + " Bob Builder");
    auto ready = readies.pop(deadline);
    ASSERT_TRUE(ready);
    EXPECT_EQ(ready->secret.size(), 64u);
    EXPECT_EQ(ready->displayName, "Bob Builder");
    EXPECT_TRUE(output.wait_for_prefix("claimed " + *code + " by Bob Builder", deadline));
    secret = ready->secret;

    // A list request goes out; without a permission handler the client rejects it.
    command("list audio");
    // (The identify reply may be printed after the code; the list's reply is the one.)
    auto reply = output.wait_for(
        [](const std::string& line) { return line.rfind("reply ", 0) == 0 && line.find("\"list\"") != std::string::npos; },
        deadline);
    ASSERT_TRUE(reply);
    EXPECT_NE(reply->find("Rejected"), std::string::npos) << *reply;

    // With its standard input gone the program keeps serving: a new run presents the secret.
    program.close_stdin();
    client->stop();
    client->join();
    client->start();
    EXPECT_TRUE(states.pop_until([](state_type::type s) { return s == state_type::connected; }, deadline));
    client->stop();
    client->join();

    program.kill(SIGTERM);
    EXPECT_EQ(test::how_it_ended(program, deadline), "exited with code 0");
    while (output.next(0ms)) {
    }
    for (const auto& line : output.lines())
        EXPECT_EQ(line.find(secret), std::string::npos) << "secret printed: " << line;
}

} // namespace
} // namespace orbweave::test
