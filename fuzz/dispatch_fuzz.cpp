// Fuzz target: a frame from the service, through the whole client. The real client runs
// its network thread and every handler, but its link is held in memory: the input is
// handed to the handlers exactly as the transport hands a received text frame (after the
// transport's own size and UTF-8 checks), and what the client sends back is collected.
//
// Beyond not crashing, hanging or leaking, every frame the client sends must be a JSON
// object naming one of the protocol's ids, and a reply's status one of the three the
// service knows. Media workers are never started: their program does not exist, so a
// list or an activation ends in "Failure" the way a broken installation would.

#include "core/json.hpp"
#include "core/orbweave_client_impl.hpp"
#include "core/websocket/connection.hpp"
#include "core/websocket/websocket_client.hpp"

#include <websocketpp/utf8_validator.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace {

using namespace orbweave;

[[noreturn]] void reject(const char* why, const std::string& frame)
{
    std::fprintf(stderr, "dispatch_fuzz: %s: %.300s\n", why, frame.c_str());
    std::abort();
}

// Every frame the client sends, checked as the service would read it.
void check_sent(const std::string& frame)
{
    static const std::set<std::string> ids{"code", "identify", "list", "activate", "deactivate"};
    static const std::set<std::string> statuses{"Success", "Failure", "Rejected"};
    Json sent = json::parse(frame);
    if (!sent.is_object())
        reject("the client sent something that is not a JSON object", frame);
    if (!ids.count(json::string_at(sent, {"id"})))
        reject("the client sent an id the service does not know", frame);
    const Json& status = json::at(sent, {"payload", "status"});
    if (!status.is_null() && !statuses.count(json::string_at(sent, {"payload", "status"})))
        reject("the client sent an unknown status", frame);
}

class harness {
public:
    harness()
    {
        client_options options;
        options.reconnect_delay_ms = 3600 * 1000; // the refused URL below is tried once
        options.keepalive_interval_ms = 3600 * 1000;
        options.media.listing.executable = "/nonexistent/orbweave-media-worker";
        options.media.stream.executable = options.media.listing.executable;
        // Not a URL the transport accepts: the client makes no connection at all.
        client_ = std::make_unique<orbweave_client_impl>("memory:", options);
        client_->set_secret_handler([] { return std::string("fuzz-secret"); });
        client_->set_permission_handler([](callback::source_type::type, const std::string&, const std::string&,
                                           callback::request_type::type,
                                           const callback::request& request) { request.answer(true); });
        client_->start();
        link_ = websocket::connection(std::make_shared<const websocket::connection::frame_sink>(check_sent));
        deliver(R"({"id":"open"})");
    }

    ~harness()
    {
        client_->stop();
        client_->join();
    }

    /// Hands frame to the client and returns once it has been handled.
    void deliver(std::string frame)
    {
        client_->deliver(std::move(frame), link_);
        // The network thread serves frames in order, and "identify" is answered at
        // once: its reply says the frame before it has been handled.
        auto handled = std::make_shared<std::promise<void>>();
        auto once = std::make_shared<std::once_flag>();
        auto sentinel = websocket::connection(std::make_shared<const websocket::connection::frame_sink>(
            [handled, once](const std::string&) { std::call_once(*once, [&] { handled->set_value(); }); }));
        client_->deliver(R"({"id":"identify"})", sentinel);
        handled->get_future().wait();
    }

private:
    std::unique_ptr<orbweave_client_impl> client_;
    websocket::connection link_;
};

harness* the_harness = nullptr;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    the_harness = new harness;
    std::atexit([] {
        delete the_harness;
        the_harness = nullptr;
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // The transport fails the link before dispatch for both of these.
    if (size > websocket::max_message_bytes)
        return -1;
    std::string frame(reinterpret_cast<const char*>(data), size);
    if (!websocketpp::utf8_validator::validate(frame))
        return -1;
    the_harness->deliver(std::move(frame));
    return 0;
}
