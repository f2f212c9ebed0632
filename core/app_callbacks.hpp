#pragma once

#include "core/activity_log.hpp"
#include "core/callback.hpp"
#include "core/encode_profile.hpp"

#include <functional>
#include <string>

namespace orbweave {

/// The application as the protocol handlers reach it: its callbacks and the state the
/// client reports to it. The client implements it; every operation runs on the network
/// thread with the client's mutex held while the application's callback runs.
class app_callbacks {
public:
    virtual void state_changed(callback::state_type::type state) = 0;
    /// The last stream has gone: reports the link's own state again (connected, pairing
    /// or disconnected), not "streaming".
    virtual void streams_gone() = 0;
    /// The stored secret; "" when there is none.
    virtual std::string secret() = 0;
    virtual void new_code(std::string& code) = 0;
    virtual void ready(callback::msg::ready& ready) = 0;
    virtual void reset() = 0;
    virtual encode_profile profile() = 0;
    /// How the user treats the kind (asked before an activation's lookup); ask when the
    /// application does not say.
    virtual callback::permission_rule::type rule(callback::source_type::type kind) = 0;
    /// Asks the user. on_answer runs on the network thread with the answer and who gave
    /// it ("rule": at once, from a standing choice; "user": asked), once, whichever thread
    /// answers; an answer given after the client stopped does nothing.
    virtual void ask_permission(callback::source_type::type kind, const std::string& name,
                                const std::string& description, callback::request_type::type request,
                                std::function<void(bool allowed, const char* decided)> on_answer) = 0;
    /// The history of what the service used (recorded on the network thread).
    virtual activity_recorder& activity() = 0;

protected:
    ~app_callbacks() = default;
};

} // namespace orbweave
