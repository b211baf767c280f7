#include <tern/typed/decode.h>

#include <tern/foundation/log.h>
#include <tern/typed/remote.h>

#include <string>
#include <utility>

#include "foundation/error_text.h"
#include "platform/static_text.h"
#include "typed/reading.h"
#include "typed/reply_state.h"

namespace mwl::Typed::Detail {

namespace {

const StaticText LOGGER("Typed");

/// The text may hold what the peer sent: it is for the caller, the log gets the signatures.
Error WrongReply(const std::string& text, const char* logged, const Remote* remote) {
    if (remote != nullptr) {
        ClientCalls& clients = remote->GetState()->clients;
        ++clients.wrongReplies;
        unsigned long omitted = 0;
        if (clients.wrongLog.Allows(omitted)) {
            TERN_LOG_WARNING(LOGGER, "%s %s: %s (%lu like it not logged)", remote->GetDestination().c_str(),
                             remote->GetPath().c_str(), logged, omitted);
        }
    }
    return Error::WrongReply(text);
}

}  // namespace

bool IsResult(sd_bus_message* reply, const char* signature) noexcept {
    const char* found = sd_bus_message_get_signature(reply, 1);
    // Most are of one character, or none.
    for (; found != nullptr && *found == *signature; ++found, ++signature) {
        if (*found == '\0') {
            return sd_bus_message_is_method_error(reply, nullptr) <= 0;
        }
    }
    return false;
}

Error ErrorOfReply(sd_bus_message* reply, const char* wanted, const Remote* remote) {
    if (sd_bus_message_is_method_error(reply, nullptr) > 0) {
        return Error::FromReply(reply);
    }
    const char* const found = sd_bus_message_get_signature(reply, 1);
    const std::string text =
        std::string("a reply of '") + (found != nullptr ? found : "") + "' where '" + wanted + "' is wanted";
    return WrongReply(text, text.c_str(), remote);
}

Error ErrorOfReading(int result, const Fault& fault, unsigned index, unsigned count, const Remote* remote) {
    std::string text = count == 1 ? "the result" : "result " + std::to_string(index + 1);
    text.append(fault.where).append(": ").append(fault.text[0] != '\0' ? fault.text : ErrorText(-result));
    const StatusCode status = fault.text[0] != '\0' ? StatusCode::InvalidArgument : StatusOfReading(result);
    if (status == StatusCode::InvalidArgument || status == StatusCode::NotSupported) {
        return WrongReply(text, "a reply with a value that the wanted type does not have", remote);
    }
    return {status, text};
}

}  // namespace mwl::Typed::Detail
