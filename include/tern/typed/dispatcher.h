#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>
#include <tern/threading/unique_function.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace mw::tern {
class EventLoop;
}

namespace mwl::Typed {

using mw::tern::StatusCode;

/// Work for the D-Bus thread. Moved and never copied, so it may hold a `Reply` or anything else that is.
using Job = UniqueFunction<void()>;

/// Brings work to the D-Bus thread: any thread posts a job, the loop runs it. `Bus` has one; applications use
/// `Bus::Post`.
///
///     bus.Post([this, value] { mInterface->SetTemperature(value); });
///
/// Jobs run one at a time in the order of posting, between the bus's messages: after 64 of them the bus has
/// its turn, so that a thread that posts without a pause delays the bus but does not silence it. No more than
/// 4096 ordinary jobs wait (SetLimit); one more is refused. A job posted through a `Place` taken in advance
/// is never refused: it is for jobs whose number is bounded by something else, as the number of replies is by
/// the calls they answer.
///
/// Posting never waits for the D-Bus thread, nor for anything but the other threads that post at the same
/// moment, each for well below a microsecond; those of real-time priority may post (the mutex inherits it).
///
/// An exception of a job is treated like that of any callback of the loop, see EventLoop::AddIo: it is logged
/// (critical, logger name "Typed") with its type and text, no further job runs, and the loop ends in order
/// with the exit code -ENOTRECOVERABLE, so that the process ends as failed.
///
/// A job that is refused, or dropped by `Close`, is destroyed without having run, with no lock held: on the
/// thread that posted it, or that closed. Its destructor may post.
///
/// | operation        | before Open    | open             | closed           |
/// |------------------|----------------|------------------|------------------|
/// | Post             | false          | true, or at the limit false | false |
/// | Open             | opens          | Busy             | opens again      |
/// | Close            | nothing        | drops what waits | nothing          |
///
/// Threads: `Post`, `Reserve`, `IsHere`, `GetStatus`, `SetLimit` and the figures from any thread; all else,
/// and the destructor when it is open, on the D-Bus thread. A job may close and destroy its dispatcher.
class TERN_API Dispatcher {
    struct Node;

public:
    /// How many jobs run before the bus has its turn.
    static constexpr std::size_t SHARE = 64;
    /// How many ordinary jobs wait, unless SetLimit says otherwise.
    static constexpr std::size_t LIMIT = 4096;

    /// A place in the queue that was taken in advance: a post with it needs no memory, and no limit refuses
    /// it. The post uses it up. One thread at a time.
    class TERN_API Place {
    public:
        /// None.
        Place() noexcept;
        /// Takes the place over; `other` is none then.
        Place(Place&& other) noexcept;
        /// The one held before is given back.
        Place& operator=(Place&& other) noexcept;
        ~Place();
        /// Whether there is one.
        explicit operator bool() const noexcept { return mNode != nullptr; }

    private:
        friend class Dispatcher;
        std::unique_ptr<Node> mNode;
    };

    Dispatcher();
    ~Dispatcher();
    Dispatcher(const Dispatcher&) = delete;
    Dispatcher& operator=(const Dispatcher&) = delete;

    /// Has the loop run the jobs; the calling thread is the D-Bus thread from now on. The loop outlives the
    /// time until Close. Ok; Busy when open; otherwise the status of the failing call, eventfd(2) or
    /// EventLoop::AddIo, nothing has changed then.
    StatusCode Open(mw::tern::EventLoop& loop);
    /// Destroys what waits, and refuses all that comes. May be called by a job, which then is the last one.
    void Close();

    /// Has the D-Bus thread run the job, after all that was posted before it; never within this call, not
    /// even on the D-Bus thread. True: it will run, unless Close comes first. False: not open, or the limit
    /// is reached, and the job has been destroyed. An empty job counts as one that does nothing. Throws
    /// std::bad_alloc; the job has been destroyed then as well.
    bool Post(Job job);
    /// The same through a place, which no limit refuses. False: not open, or there was none in `place`.
    bool Post(Place place, Job job) noexcept;
    /// Takes a place. Throws std::bad_alloc.
    static Place Reserve();

    /// Whether the calling thread has opened this, also after Close; false for every thread before.
    bool IsHere() const noexcept;

    /// Ok while it is open; NotInitialized before; Stopping once it has closed.
    StatusCode GetStatus() const noexcept;

    /// How many ordinary jobs may wait. With 0 each is refused. Jobs that wait already stay.
    void SetLimit(std::size_t limit);
    /// How many jobs wait now, those with a place included.
    std::size_t GetWaiting() const;
    /// How many ordinary jobs were refused at the limit so far.
    std::uint64_t GetRefused() const;

private:
    struct State;
    const std::shared_ptr<State> mState;
};

}  // namespace mwl::Typed
