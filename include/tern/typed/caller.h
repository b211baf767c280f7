#pragma once

#include <sys/types.h>
#include <systemd/sd-bus.h>
#include <tern/foundation/api.h>

#include <optional>

namespace mwl::Typed {

/// Who made the call that is being handled.
///
///     Outcome<void> Format(const Caller& caller, std::string_view volume) {
///         TERN_LOG_NOTICE(LOGGER, "%s formats %s", caller.GetSender(), ...);
///
/// The message bus knows user and process of each connection, and they never change, so `Bus` keeps them: of
/// at most 256 callers, as long as these are on the bus. For a caller of a `Checked` member they are known by
/// the time the handler runs. For another caller, while they are not known yet, GetUid, GetPid and
/// IsPrivileged ask the message bus and wait for it: some 0.1 ms, or 25 s for a message bus that hangs. Once
/// they are known, these calls return immediately.
///
/// D-Bus thread only. Valid as long as the handler's message, so during the handler; a handler that answers
/// later takes along what it needs of it.
class TERN_API Caller {
public:
    /// The sender of `call`, which is borrowed.
    explicit Caller(sd_bus_message* call) noexcept : mMessage(call) {}

    /// Its unique name on the bus, for example ":1.42"; "" on a connection without a bus.
    const char* GetSender() const noexcept;
    /// The result of sd_bus_query_sender_privilege(3): the caller's user is root or this process's, or it has
    /// the capability (capabilities(7)), -1 for none. A message bus reports nobody's capabilities, so there
    /// the user decides. False also when it cannot be found out.
    bool IsPrivileged(int capability = -1) const noexcept;
    /// The caller's user. Nothing when it cannot be found out: it has left, or the bus has closed.
    std::optional<uid_t> GetUid() const noexcept;
    /// The caller's process, when it connected; by now that number may be another's. Nothing when it cannot
    /// be found out.
    std::optional<pid_t> GetPid() const noexcept;
    /// The call. Borrowed; a reference of it is released on the D-Bus thread.
    sd_bus_message* GetMessage() const noexcept { return mMessage; }

private:
    sd_bus_message* mMessage;
};

}  // namespace mwl::Typed
