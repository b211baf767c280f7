#pragma once

#include <tern/typed/dispatcher.h>
#include <tern/typed/error.h>
#include <tern/typed/reply.h>

#include <cstdint>

#include "typed/client_calls.h"
#include "typed/log_limit.h"
#include "typed/pending_calls.h"
#include "typed/watching.h"

namespace mwl::Typed {

class BusCore;

/// The state that the bus shares with the tokens that other threads hold: of calls (Reply) and of objects
/// (Exported). The dispatcher and the calls have their own locks; everything else belongs to the D-Bus
/// thread.
struct ReplyState {
    Dispatcher dispatcher;
    PendingCalls calls;
    /// Null once the bus has gone.
    BusCore* core = nullptr;
    std::uint64_t droppedCalls = 0;
    std::uint64_t unsentReplies = 0;
    LogLimit limit;
    ClientCalls clients;
    Watching watching;

    /// The call, which is no longer open; notifies the bus when it was the last one.
    PendingCalls::Call Take(std::uint64_t id) noexcept;
    /// Sends the error as the call's answer, if one is wanted.
    void SendError(const PendingCalls::Call& call, const char* name, const char* text) noexcept;
    /// The call's answer was not sent: an error without any contents goes in its place, so that the caller
    /// does not wait for nothing. Logged and counted; so is the error when it cannot be sent either.
    void OnUnsent(sd_bus_message* call, int error) noexcept;
    /// Logs, and counts, that the call's answer was not sent.
    void LogUnsent(sd_bus_message* call, int error) noexcept;
};

}  // namespace mwl::Typed
