#include "typed/caller_checks.h"

#include <tern/typed/interface_base.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <utility>

#include "typed/bus_core.h"
#include "typed/handles.h"
#include "typed/reply_state.h"

namespace mwl::Typed {

namespace {

int Refuse(const InterfaceBase& interface, sd_bus_message* call, sd_bus_error* error) {
    // In sd-bus's own words.
    return sd_bus_error_setf(error, SD_BUS_ERROR_ACCESS_DENIED, "Access to %s.%s() not permitted.",
                             interface.GetName().c_str(), sd_bus_message_get_member(call));
}

}  // namespace

bool IsPrivileged(const Identity& sender) noexcept {
    return sender.uid.has_value() && (*sender.uid == 0 || *sender.uid == getuid());
}

CallerChecks::CallerChecks(ReplyState& replies, Credentials& credentials) noexcept
    : mReplies(replies), mCredentials(credentials) {}

int CallerChecks::Check(InterfaceBase& interface, sd_bus_message* call, int capability,
                        sd_bus_message_handler_t handler, void* userdata, sd_bus_error* error) noexcept {
    if (sd_bus_is_trusted(sd_bus_message_get_bus(call)) > 0) {
        return 1;
    }
    const char* const sender = sd_bus_message_get_sender(call);
    if (sender == nullptr) {
        // Nobody is between the two; the connection itself knows.
        const int r = sd_bus_query_sender_privilege(call, capability);
        return r > 0 ? r : r < 0 ? sd_bus_error_set_errno(error, r) : Refuse(interface, call, error);
    }
    // A message bus reports nobody's capabilities, so that for sd-bus too the user decides.
    const bool isContinued = call == mContinued;
    const Identity* const known = isContinued ? mSender : mCredentials.Find(sender);
    try {
        // Known from elsewhere while others of this sender wait: behind them.
        if (isContinued || (known != nullptr && !mCredentials.IsAsking(sender))) {
            return known != nullptr && IsPrivileged(*known) ? 1 : Refuse(interface, call, error);
        }
        return Park(interface, call, sender, handler, userdata, error);
    } catch (const std::bad_alloc&) {
        return sd_bus_error_set_const(error, SD_BUS_ERROR_NO_MEMORY, "out of memory");
    }
}

int CallerChecks::Park(InterfaceBase& interface, sd_bus_message* call, const char* sender,
                       sd_bus_message_handler_t handler, void* userdata, sd_bus_error* error) {
    const std::uint64_t id = TakeOver(mReplies, call, error);
    if (id == 0) {
        return -EBUSY;
    }
    int r = -ENOMEM;
    try {
        mParked.emplace(id, Parked{&interface, handler, userdata});
        r = mCredentials.Ask(sender, [this, id](const Identity* known) { Continue(id, known); });
    } catch (...) {
        mParked.erase(id);
        mReplies.Take(id);
        throw;
    }
    if (r < 0) {
        mParked.erase(id);
        mReplies.Take(id);
        return sd_bus_error_set_errno(error, r);
    }
    return 0;
}

void CallerChecks::Continue(std::uint64_t id, const Identity* sender) noexcept {
    const auto parked = mParked.extract(id);
    if (parked.empty()) {
        return;
    }
    const PendingCalls::Call call = mReplies.Take(id);
    if (call.message == nullptr) {
        return;
    }
    sd_bus_error error{};
    int r = sd_bus_message_rewind(call.message.get(), 1);
    if (r >= 0) {
        mContinued = call.message.get();
        mSender = sender;
        r = parked.mapped().handler(call.message.get(), parked.mapped().userdata, &error);
        mContinued = nullptr;
        mSender = nullptr;
    }
    if (r < 0 || sd_bus_error_is_set(&error) > 0) {
        r = sd_bus_reply_method_errno(call.message.get(), r, &error);
        if (r < 0) {
            mReplies.OnUnsent(call.message.get(), r);
        }
    }
    sd_bus_error_free(&error);
}

void CallerChecks::Forget(const InterfaceBase& interface) noexcept {
    for (auto parked = mParked.begin(); parked != mParked.end();) {
        if (parked->second.interface != &interface) {
            ++parked;
            continue;
        }
        const PendingCalls::Call call = mReplies.Take(parked->first);
        parked = mParked.erase(parked);
        if (call.message != nullptr) {
            mReplies.SendError(call, SD_BUS_ERROR_UNKNOWN_OBJECT, "the object has been removed");
        }
    }
}

}  // namespace mwl::Typed
