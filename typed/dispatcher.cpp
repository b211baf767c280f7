#include <tern/typed/dispatcher.h>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <systemd/sd-event.h>
#include <tern/foundation/log.h>
#include <tern/service/event_loop.h>
#include <tern/threading/lock.h>
#include <tern/threading/mutex.h>

#include <atomic>
#include <cerrno>
#include <utility>

#include "foundation/unique_fd.h"
#include "platform/static_text.h"
#include "service/thrown.h"

namespace mwl::Typed {

using mw::tern::Contain;
using mw::tern::EventLoop;
using mw::tern::Thrown;
using Threading::Lock;
using Threading::Mutex;

namespace {

const StaticText LOGGER("Typed");

/// A number of the calling thread's own that no other thread ever has, unlike std::thread::id.
std::uint64_t GetThreadNumber() noexcept {
    static std::atomic<std::uint64_t> last{0};
    static thread_local const std::uint64_t number = ++last;
    return number;
}

}  // namespace

struct Dispatcher::Node {
    Job job;
    bool isOrdinary = false;
    std::unique_ptr<Node> next;
};

struct Dispatcher::State {
    /// In order; linked, so that a node which exists can be put in without memory.
    struct Queue {
        std::unique_ptr<Node> first;
        Node* last = nullptr;
        std::size_t size = 0;
        std::size_t ordinary = 0;

        Queue() = default;
        Queue(Queue&& other) noexcept
            : first(std::move(other.first)),
              last(std::exchange(other.last, nullptr)),
              size(std::exchange(other.size, 0)),
              ordinary(std::exchange(other.ordinary, 0)) {}
        Queue& operator=(Queue&&) = delete;
        // One by one: a chain that is left to itself takes a stack frame for each.
        ~Queue() {
            while (Pop() != nullptr) {
            }
        }

        void Push(std::unique_ptr<Node> node) noexcept {
            ++size;
            ordinary += node->isOrdinary ? 1 : 0;
            Node* const added = node.get();
            (last == nullptr ? first : last->next) = std::move(node);
            last = added;
        }
        std::unique_ptr<Node> Pop() noexcept {
            std::unique_ptr<Node> node = std::move(first);
            if (node != nullptr) {
                first = std::move(node->next);
                last = first == nullptr ? nullptr : last;
                --size;
                ordinary -= node->isOrdinary ? 1 : 0;
            }
            return node;
        }
    };

    /// Moves the node in, unless it is refused; then it is still there.
    bool Push(std::unique_ptr<Node>& node) noexcept {
        const Lock lock(mutex);
        if (!isOpen) {
            return false;
        }
        if (node->isOrdinary && queue.ordinary >= limit) {
            ++refused;
            return false;
        }
        queue.Push(std::move(node));
        if (!std::exchange(isAwake, true)) {
            // Cannot wait, because nothing else is in it.
            static_cast<void>(eventfd_write(wake.Get(), 1));
        }
        return true;
    }
    /// Null when there is none, or not any more; the loop sleeps then until the next is pushed.
    std::unique_ptr<Node> Pop() noexcept {
        const Lock lock(mutex);
        std::unique_ptr<Node> node = queue.Pop();
        if (queue.size == 0 && std::exchange(isAwake, false)) {
            eventfd_t count = 0;
            static_cast<void>(eventfd_read(wake.Get(), &count));  // it is in there
        }
        return node;
    }

    StatusCode RunShare(sd_event_source* source);

    EventLoop* loop = nullptr;  ///< D-Bus thread only
    /// The number of the D-Bus thread; 0 before it is open.
    std::atomic<std::uint64_t> owner{0};

    mutable Mutex mutex{Mutex::Protocol::PriorityInheritance};
    // Guarded by it.
    bool isOpen = false;
    bool isAwake = false;  ///< there is a wake-up in `wake`
    Queue queue;
    std::size_t limit = LIMIT;
    std::uint64_t refused = 0;
    UniqueFd wake;
};

Dispatcher::Place::Place() noexcept = default;
Dispatcher::Place::Place(Place&& other) noexcept = default;
Dispatcher::Place& Dispatcher::Place::operator=(Place&& other) noexcept = default;
Dispatcher::Place::~Place() = default;

Dispatcher::Dispatcher() : mState(std::make_shared<State>()) {}

Dispatcher::~Dispatcher() {
    Close();
}

StatusCode Dispatcher::Open(EventLoop& loop) {
    if (mState->loop != nullptr) {
        return StatusCode::Busy;
    }
    UniqueFd wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake) {
        return mw::tern::MakeStatusCodeFromErrno(errno);
    }
    // Its own reference: a job may destroy the dispatcher.
    const StatusCode status = loop.AddIo(
        wake.Get(), EPOLLIN,
        [state = mState](sd_event_source* source, int, unsigned int) { return state->RunShare(source); });
    if (status != StatusCode::Ok) {
        return status;
    }
    mState->loop = &loop;
    mState->owner = GetThreadNumber();
    const Lock lock(mState->mutex);
    mState->wake = std::move(wake);
    mState->isOpen = true;
    return StatusCode::Ok;
}

void Dispatcher::Close() {
    State& state = *mState;
    UniqueFd wake;
    const State::Queue dropped = [&] {
        const Lock lock(state.mutex);
        state.isOpen = false;
        state.isAwake = false;
        wake = std::move(state.wake);
        return State::Queue(std::move(state.queue));
    }();
    if (wake) {
        // Cannot fail: it is watched, and by nobody else.
        static_cast<void>(std::exchange(state.loop, nullptr)->RemoveIo(wake.Get()));
    }
}

bool Dispatcher::Post(Job job) {
    auto node = std::make_unique<Node>();
    node->job = std::move(job);
    node->isOrdinary = true;
    return mState->Push(node);
}

bool Dispatcher::Post(Place place, Job job) noexcept {
    if (!place) {
        return false;
    }
    place.mNode->job = std::move(job);
    return mState->Push(place.mNode);
}

Dispatcher::Place Dispatcher::Reserve() {
    Place place;
    place.mNode = std::make_unique<Node>();
    return place;
}

bool Dispatcher::IsHere() const noexcept {
    return mState->owner.load(std::memory_order_relaxed) == GetThreadNumber();
}

StatusCode Dispatcher::GetStatus() const noexcept {
    const Lock lock(mState->mutex);
    if (mState->isOpen) {
        return StatusCode::Ok;
    }
    return mState->owner == 0 ? StatusCode::NotInitialized : StatusCode::Stopping;
}

void Dispatcher::SetLimit(std::size_t limit) {
    const Lock lock(mState->mutex);
    mState->limit = limit;
}

std::size_t Dispatcher::GetWaiting() const {
    const Lock lock(mState->mutex);
    return mState->queue.size;
}

std::uint64_t Dispatcher::GetRefused() const {
    const Lock lock(mState->mutex);
    return mState->refused;
}

/// A job may close the dispatcher: the callback that runs this outlives the call then, see
/// EventLoop::RemoveIo.
StatusCode Dispatcher::State::RunShare(sd_event_source* source) {
    for (std::size_t run = 0; run < SHARE; ++run) {
        const std::unique_ptr<Node> node = Pop();
        if (node == nullptr) {
            break;
        }
        if (!node->job) {
            continue;
        }
        const StatusCode status = Contain(
            StatusCode::Failure,
            [&] {
                node->job();
                return StatusCode::Ok;
            },
            [&](const Thrown& thrown) {
                mw::tern::TellThrown(thrown);
                TERN_LOG_CRITICAL(LOGGER, "A job for the D-Bus thread threw %s: %s", thrown.Type(),
                                  thrown.Text());
                sd_event_exit(sd_event_source_get_event(source), -ENOTRECOVERABLE);
            });
        if (status != StatusCode::Ok) {
            return status;
        }
    }
    return StatusCode::Ok;
}

}  // namespace mwl::Typed
