#include "typed/pending_calls.h"

#include <tern/threading/lock.h>

#include <new>
#include <utility>

namespace mwl::Typed {

using Threading::Lock;

std::uint64_t PendingCalls::Add(sd_bus_message* call, sd_bus_error* error) noexcept {
    if (mIsClosed) {
        sd_bus_error_set_const(error, SD_BUS_ERROR_NO_REPLY, "the service is stopping");
        return 0;
    }
    if (mCalls.size() >= mLimit) {
        ++mRefused;
        sd_bus_error_set_const(error, SD_BUS_ERROR_LIMITS_EXCEEDED,
                               "too many calls are waiting for their answer");
        return 0;
    }
    try {
        Call added{Message(sd_bus_message_ref(call)), Dispatcher::Reserve(),
                   sd_bus_message_get_expect_reply(call) > 0};
        const Lock lock(mMutex);
        mCalls.emplace(mNext, std::move(added));
        return mNext++;
    } catch (const std::bad_alloc&) {
        sd_bus_error_set_const(error, SD_BUS_ERROR_NO_MEMORY, "out of memory");
        return 0;
    }
}

PendingCalls::Call PendingCalls::Take(std::uint64_t id) noexcept {
    auto taken = [&] {
        const Lock lock(mMutex);
        return mCalls.extract(id);
    }();
    return taken.empty() ? Call() : std::move(taken.mapped());
}

sd_bus_message* PendingCalls::Find(std::uint64_t id) const noexcept {
    const auto found = mCalls.find(id);
    return found != mCalls.end() ? found->second.message.get() : nullptr;
}

Dispatcher::Place PendingCalls::TakePlace(std::uint64_t id) noexcept {
    const Lock lock(mMutex);
    const auto found = mCalls.find(id);
    return found == mCalls.end() ? Dispatcher::Place() : std::move(found->second.place);
}

bool PendingCalls::IsWanted(std::uint64_t id) const noexcept {
    const Lock lock(mMutex);
    const auto found = mCalls.find(id);
    return found != mCalls.end() && found->second.isWanted;
}

void PendingCalls::MarkLeft(std::string_view sender) noexcept {
    const Lock lock(mMutex);
    for (auto& [id, call] : mCalls) {
        const char* const name = sd_bus_message_get_sender(call.message.get());
        if (name != nullptr && sender == name) {
            call.isWanted = false;
        }
    }
}

std::set<std::string> PendingCalls::GetSenders() const {
    std::set<std::string> senders;
    for (const auto& [id, call] : mCalls) {
        if (const char* const sender = sd_bus_message_get_sender(call.message.get())) {
            senders.insert(sender);
        }
    }
    return senders;
}

PendingCalls::Calls PendingCalls::Close() noexcept {
    mIsClosed = true;
    Calls open;
    const Lock lock(mMutex);
    open.swap(mCalls);
    return open;
}

}  // namespace mwl::Typed
