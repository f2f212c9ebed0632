#include "core/websocket/message_handler.hpp"

namespace orbweave::websocket {

envelope envelope::of(const Json& message)
{
    return {json::at(message, {"id"}), json::at(message, {"state"})};
}

Json envelope::reply(Json payload) const
{
    return Json{{"id", id}, {"state", state}, {"payload", std::move(payload)}};
}

message_handler::message_handler(std::string id)
    : id_(std::move(id))
{
}

message_handler::~message_handler() = default;

lambda_message_handler::lambda_message_handler(std::string id, function handle)
    : message_handler(std::move(id)), handle_(std::move(handle))
{
}

std::unique_ptr<message_handler> lambda_message_handler::create(std::string id, function handle)
{
    return std::make_unique<lambda_message_handler>(std::move(id), std::move(handle));
}

void lambda_message_handler::handle(const connection& connection, const Json& message)
{
    handle_(connection, message);
}

} // namespace orbweave::websocket
