#include <tern/typed/caller.h>

#include <new>

#include "typed/caller_checks.h"
#include "typed/credentials.h"
#include "typed/handles.h"

namespace mwl::Typed {

namespace {

using Creds = Handle<sd_bus_creds, sd_bus_creds_unref>;

/// Known, or asked for and waited for; asked for once, where there is a typed bus.
Identity GetIdentity(sd_bus_message* call) noexcept {
    const char* const sender = sd_bus_message_get_sender(call);
    Credentials* const credentials = Credentials::Of(sd_bus_message_get_bus(call));
    if (sender != nullptr && credentials != nullptr) {
        if (const Identity* const known = credentials->Find(sender)) {
            return *known;
        }
    }
    Identity identity;
    sd_bus_creds* asked = nullptr;
    if (sd_bus_query_sender_creds(call, SD_BUS_CREDS_EUID | SD_BUS_CREDS_PID, &asked) < 0) {
        return identity;
    }
    const Creds creds(asked);
    uid_t uid = 0;
    if (sd_bus_creds_get_euid(asked, &uid) >= 0) {
        identity.uid = uid;
    }
    pid_t pid = 0;
    if (sd_bus_creds_get_pid(asked, &pid) >= 0) {
        identity.pid = pid;
    }
    if (sender != nullptr && credentials != nullptr && identity.uid.has_value()) {
        try {
            credentials->Keep(sender, identity);
        } catch (const std::bad_alloc&) {  // asked for once more the next time
        }
    }
    return identity;
}

}  // namespace

const char* Caller::GetSender() const noexcept {
    const char* const sender = sd_bus_message_get_sender(mMessage);
    return sender == nullptr ? "" : sender;
}

bool Caller::IsPrivileged(int capability) const noexcept {
    if (sd_bus_is_trusted(sd_bus_message_get_bus(mMessage)) > 0) {
        return true;
    }
    if (sd_bus_message_get_sender(mMessage) == nullptr) {
        return sd_bus_query_sender_privilege(mMessage, capability) > 0;
    }
    return Typed::IsPrivileged(GetIdentity(mMessage));
}

std::optional<uid_t> Caller::GetUid() const noexcept {
    return GetIdentity(mMessage).uid;
}

std::optional<pid_t> Caller::GetPid() const noexcept {
    return GetIdentity(mMessage).pid;
}

}  // namespace mwl::Typed
