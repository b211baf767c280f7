#include "failure.h"

#include <systemd/sd-bus.h>

#include <cstdint>
#include <cstring>

#include "text.h"

namespace ternctl {

using mw::tern::StatusCode;

Failure Explain(const Typed::Error& error, const std::string& name, std::chrono::milliseconds limit) {
    const std::string& kind = error.GetName();
    const std::string quoted = "'" + name + "'";
    if (kind == SD_BUS_ERROR_NO_SERVER) {
        return Failure(error.GetText());
    }
    if (kind == SD_BUS_ERROR_SERVICE_UNKNOWN || kind == SD_BUS_ERROR_NAME_HAS_NO_OWNER) {
        return {Cause::NotThere, quoted + " is not on the bus"};
    }
    if (kind == SD_BUS_ERROR_UNKNOWN_OBJECT || kind == SD_BUS_ERROR_UNKNOWN_INTERFACE ||
        kind == SD_BUS_ERROR_UNKNOWN_METHOD || kind == SD_BUS_ERROR_UNKNOWN_PROPERTY) {
        return {Cause::NoDiagnostics, quoted + " has no diagnostics"};
    }
    if (kind == "mwl.Typed.Error.WrongReply") {
        return Failure(quoted + " has diagnostics of another version: " + error.GetText());
    }
    if (kind == "tern.Diagnostics1.Error.NotRecording") {
        return Failure(quoted + " records nothing");
    }
    switch (error.GetStatus()) {
        case StatusCode::AccessDenied:
        case StatusCode::NotPermitted:
            return Failure(
                "access to " + quoted +
                " is denied: root may ask, others where the bus's policy and the service let them");
        case StatusCode::Timeout:
            return Failure(Cause::Late, quoted + " did not answer within " +
                                            Duration(static_cast<std::uint64_t>(limit.count()) * 1000));
        case StatusCode::IoError:
            return Failure("the connection to the bus was lost");
        default:
            break;
    }
    if (kind == SD_BUS_ERROR_NO_REPLY) {
        return Failure(Cause::Left, quoted + " left the bus without an answer");
    }
    return Failure(quoted + " refuses: " + (error.GetText().empty() ? kind : error.GetText()));
}

Failure SystemFailure(const std::string& what, int error) {
    const char* const text = strerrordesc_np(error);
    return Failure(what + ": " + (text != nullptr ? text : "unknown error"));
}

}  // namespace ternctl
