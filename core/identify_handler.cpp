#include "core/identify_handler.hpp"

#include "core/system_info.hpp"
#include "core/websocket/connection.hpp"

namespace orbweave {

identify_handler::identify_handler()
    : message_handler("identify")
{
}

Json identify_handler::make_reply(const Json& message)
{
    return Json{
        {"id", "identify"},
        {"state", json::string_at(message, {"state"})},
        {"payload",
         {
             {"name", system_info::machine_name()},
             {"fingerprint", system_info::fingerprint()},
             {"description", system_info::os_version()},
             {"operatingSystem", system_info::os_name()},
             {"version", client_version},
         }},
    };
}

void identify_handler::handle(const websocket::connection& connection, const Json& message)
{
    connection.send(json::dump(make_reply(message)));
}

} // namespace orbweave
