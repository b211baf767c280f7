#pragma once

#include <sys/types.h>
#include <systemd/sd-bus.h>
#include <tern/threading/unique_function.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "typed/handles.h"

namespace mwl::Typed {

/// The message bus's knowledge of a connection.
struct Identity {
    std::optional<uid_t> uid;
    std::optional<pid_t> pid;
};

/// The identities of callers by their unique names. A bus gives no unique name twice, and what it knows of a
/// connection never changes, so they may be kept: those of the last 256 that were looked for.
///
/// D-Bus thread only.
class Credentials {
public:
    static constexpr std::size_t LIMIT = 256;
    /// Called with the identity, null when it cannot be found out.
    using WhenKnown = UniqueFunction<void(const Identity*)>;

    /// The connection outlives this. `whenKept` is called after each new entry.
    Credentials(sd_bus* bus, std::function<void()> whenKept);
    /// Callbacks that wait are dropped uncalled.
    ~Credentials();
    Credentials(const Credentials&) = delete;
    Credentials& operator=(const Credentials&) = delete;

    /// The credentials of this connection; null when it has none on this thread. With null those of any
    /// connection.
    static Credentials* Of(sd_bus* bus) noexcept;

    /// Null when not known. Valid until the next operation that is not const, except Find.
    const Identity* Find(std::string_view sender) noexcept;
    /// Whether somebody who asked for it still waits. Throws std::bad_alloc.
    bool IsAsking(std::string_view sender) const {
        return !mQuestions.empty() && mQuestions.count(std::string(sender)) > 0;
    }
    /// Keeps what was found out elsewhere. Throws std::bad_alloc.
    const Identity* Keep(std::string_view sender, const Identity& identity);
    /// Asks the bus, unless it is being asked, without waiting. 0 or above: `whenKnown` will be called, after
    /// those that ask already, never within this call. Otherwise a negative error number. Throws
    /// std::bad_alloc.
    int Ask(std::string_view sender, WhenKnown whenKnown);
    /// Adds the names of all that are kept. Throws std::bad_alloc.
    void AddSenders(std::set<std::string>& names) const;
    /// The connection has left.
    void Forget(std::string_view sender) noexcept;

    std::size_t GetSize() const noexcept { return mKept.size(); }
    bool IsEmpty() const noexcept { return mKept.empty(); }
    std::uint64_t GetAsked() const noexcept { return mAsked; }

private:
    struct Entry {
        std::string sender;
        Identity identity;
    };
    struct Question {
        Credentials* owner = nullptr;
        std::string sender;
        BusSlot slot;
        std::vector<WhenKnown> waiting;
    };

    static int OnAnswer(sd_bus_message* reply, void* userdata, sd_bus_error* error);

    sd_bus* const mBus;
    const std::function<void()> mWhenKept;
    /// The one that was looked for last is the first.
    std::list<Entry> mKept;
    std::unordered_map<std::string_view, std::list<Entry>::iterator> mBySender;
    std::unordered_map<std::string, Question> mQuestions;
    std::uint64_t mAsked = 0;
};

}  // namespace mwl::Typed
