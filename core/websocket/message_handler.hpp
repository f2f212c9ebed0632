#pragma once

#include "core/json.hpp"

#include <functional>
#include <memory>
#include <string>

namespace orbweave::websocket {

class connection;

/// The "id" and "state" of a message, which its reply copies unchanged (null when absent).
struct envelope {
    Json id;
    Json state;

    static envelope of(const Json& message);
    /// {"id", "state", "payload": payload}.
    Json reply(Json payload) const;
};

/// Serves one message id. Handlers run on the network thread, one message at a
/// time, under the transport's recursive mutex; they may send from inside handle().
class message_handler {
public:
    explicit message_handler(std::string id);
    virtual ~message_handler();

    message_handler(const message_handler&) = delete;
    message_handler& operator=(const message_handler&) = delete;

    const std::string& id() const { return id_; }

    virtual void handle(const connection& connection, const Json& message) = 0;

private:
    std::string id_;
};

/// A handler made of a function object.
class lambda_message_handler final : public message_handler {
public:
    using function = std::function<void(const connection&, const Json&)>;

    lambda_message_handler(std::string id, function handle);

    static std::unique_ptr<message_handler> create(std::string id, function handle);

    /// Calls the function; an empty one raises std::bad_function_call.
    void handle(const connection& connection, const Json& message) override;

private:
    function handle_;
};

} // namespace orbweave::websocket
