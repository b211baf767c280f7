#pragma once

#include <systemd/sd-bus.h>
#include <tern/threading/mutex.h>
#include <tern/typed/dispatcher.h>

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>

#include "foundation/handle.h"

namespace mwl::Typed {

/// The calls that were taken over to be answered later, under numbers that are never used again. The messages
/// stay here, because nobody but the D-Bus thread may hold one.
///
/// D-Bus thread only, except `TakePlace` and `IsWanted`, which any thread may call.
class PendingCalls {
public:
    using Message = Handle<sd_bus_message, sd_bus_message_unref>;

    struct Call {
        Message message;
        Dispatcher::Place place;
        /// It wants an answer, and its caller has not left as far as is known.
        bool isWanted = false;
    };
    using Calls = std::unordered_map<std::uint64_t, Call>;

    /// Takes a reference of the call. Its number, or 0 with `error` set: too many are open, closed, or no
    /// memory.
    std::uint64_t Add(sd_bus_message* call, sd_bus_error* error) noexcept;
    /// The call, which is no longer open. Without a message: answered already, or closed.
    Call Take(std::uint64_t id) noexcept;
    /// The message of an open call, borrowed; null for others.
    sd_bus_message* Find(std::uint64_t id) const noexcept;
    /// The place by which the answer of the call is posted; the first who asks gets it.
    Dispatcher::Place TakePlace(std::uint64_t id) noexcept;
    /// Whether the call is open and its answer wanted.
    bool IsWanted(std::uint64_t id) const noexcept;
    /// The connection of this name has left the bus.
    void MarkLeft(std::string_view sender) noexcept;
    /// No further calls; the open ones are the caller's to answer.
    Calls Close() noexcept;

    /// The unique names of those who wait. Throws std::bad_alloc.
    std::set<std::string> GetSenders() const;
    bool IsEmpty() const noexcept { return mCalls.empty(); }
    std::size_t GetSize() const noexcept { return mCalls.size(); }
    void SetLimit(std::size_t limit) noexcept { mLimit = limit; }
    std::uint64_t GetAdded() const noexcept { return mNext - 1; }
    std::uint64_t GetRefused() const noexcept { return mRefused; }

private:
    // Written on the D-Bus thread alone, so that it reads them without the mutex.
    mutable Threading::Mutex mMutex{Threading::Mutex::Protocol::PriorityInheritance};
    Calls mCalls;
    // Of the D-Bus thread.
    std::uint64_t mNext = 1;
    std::uint64_t mRefused = 0;
    std::size_t mLimit = 64;
    bool mIsClosed = false;
};

}  // namespace mwl::Typed
