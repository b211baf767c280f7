#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <unordered_map>

#include "typed/credentials.h"

namespace mwl::Typed {

class InterfaceBase;
struct ReplyState;

/// Whether the sender is root or this process's user: what sd-bus asks of the callers of closed members.
bool IsPrivileged(const Identity& sender) noexcept;

/// Decides who may call a `Checked` member, without waiting for the message bus: a call whose sender is not
/// known yet is parked among the calls that are answered later, and handled once the sender is known.
///
/// D-Bus thread only.
class CallerChecks {
public:
    /// Both outlive this.
    CallerChecks(ReplyState& replies, Credentials& credentials) noexcept;
    CallerChecks(const CallerChecks&) = delete;
    CallerChecks& operator=(const CallerChecks&) = delete;

    /// Attachment::CheckCaller.
    int Check(InterfaceBase& interface, sd_bus_message* call, int capability,
              sd_bus_message_handler_t handler, void* userdata, sd_bus_error* error) noexcept;
    /// The interface goes: its parked calls are answered as those of an unknown object.
    void Forget(const InterfaceBase& interface) noexcept;

private:
    struct Parked {
        const InterfaceBase* interface = nullptr;
        sd_bus_message_handler_t handler = nullptr;
        void* userdata = nullptr;
    };

    int Park(InterfaceBase& interface, sd_bus_message* call, const char* sender,
             sd_bus_message_handler_t handler, void* userdata, sd_bus_error* error);
    void Continue(std::uint64_t id, const Identity* sender) noexcept;

    ReplyState& mReplies;
    Credentials& mCredentials;
    std::unordered_map<std::uint64_t, Parked> mParked;
    /// The call that is being handled after it was parked, and what was found out about its sender.
    sd_bus_message* mContinued = nullptr;
    const Identity* mSender = nullptr;
};

}  // namespace mwl::Typed
