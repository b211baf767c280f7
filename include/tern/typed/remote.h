#pragma once

#include <tern/foundation/api.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace mwl::Typed {

class Bus;
struct ReplyState;

/// An object of a peer: which bus it is on, who has it and where, and how long its answers are waited for.
/// Shared by a `Proxy` and the calls, futures and subscriptions created with it; whichever of them is left
/// keeps it. Held as `std::shared_ptr<Remote>`.
///
/// Its creation sends nothing and checks nothing: when the name or the path is not valid, the outcome of a
/// call says so.
///
/// It may outlive the bus; calls end with `Stopping` then. Any thread; names do not change.
class TERN_API Remote {
public:
    /// How long an answer is waited for unless something else is said.
    static constexpr std::chrono::milliseconds TIMEOUT{5000};
    /// To wait as long as it takes. Every limit above ten years counts as this.
    static constexpr std::chrono::milliseconds NO_LIMIT = std::chrono::milliseconds::max();

    /// `destination` is a well-known name, or the unique name of a connection: then later owners of a name do
    /// not matter. `path` is that of the object. Throws std::bad_alloc.
    Remote(const Bus& bus, std::string destination, std::string path);
    ~Remote();
    Remote(const Remote&) = delete;
    Remote& operator=(const Remote&) = delete;

    /// As given.
    const std::string& GetDestination() const noexcept { return mDestination; }
    /// As given.
    const std::string& GetPath() const noexcept { return mPath; }

    /// How long an answer is waited for; initially TIMEOUT.
    std::chrono::milliseconds GetTimeout() const noexcept { return std::chrono::milliseconds(mTimeout); }
    /// For calls that are created from now on. 0 or less counts as the shortest time there is.
    void SetTimeout(std::chrono::milliseconds timeout) noexcept { mTimeout = timeout.count(); }

    /// The state that the bus shares with its clients. Never null. Applications do not need it.
    const std::shared_ptr<ReplyState>& GetState() const noexcept { return mState; }

private:
    const std::shared_ptr<ReplyState> mState;
    const std::string mDestination;
    const std::string mPath;
    std::atomic<std::chrono::milliseconds::rep> mTimeout{TIMEOUT.count()};
};

}  // namespace mwl::Typed
