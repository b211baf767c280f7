#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>
#include <tern/threading/condition_variable.h>
#include <tern/threading/mutex.h>
#include <tern/typed/call.h>
#include <tern/typed/dispatcher.h>
#include <tern/typed/error.h>
#include <tern/typed/remote.h>

#include <chrono>
#include <memory>
#include <optional>
#include <utility>

namespace mwl::Typed {

namespace Detail {

/// The state that a future shares with its call on the D-Bus thread.
class TERN_API FutureState {
public:
    explicit FutureState(std::shared_ptr<const Remote> remote);
    FutureState(const FutureState&) = delete;
    FutureState& operator=(const FutureState&) = delete;

    const std::shared_ptr<const Remote>& GetRemote() const noexcept { return mRemote; }
    /// Has the D-Bus thread run the job, which is to send the call. Throws std::bad_alloc.
    static void Post(const std::shared_ptr<FutureState>& state, Job job);
    /// D-Bus thread: the call, whose handler completes this one; not once it is cancelled.
    void SetCall(Pending call) noexcept;
    bool IsCancelled() const noexcept;
    /// There is an outcome, or will be none, for the reason of `failure`. The first time counts.
    void Complete(StatusCode failure) noexcept;
    /// Ok: complete. Deadlock, Timeout as of Future.
    StatusCode Wait(std::chrono::milliseconds limit) noexcept;
    bool IsComplete() const noexcept;
    /// Why there is no outcome, when complete.
    StatusCode GetFailure() const noexcept;
    /// Nobody wants the outcome.
    static void Cancel(std::shared_ptr<FutureState> state) noexcept;

protected:
    ~FutureState() = default;

private:
    const std::shared_ptr<const Remote> mRemote;
    /// By which the call is ended, whatever happens.
    Dispatcher::Place mPlace;
    mutable Threading::Mutex mMutex{Threading::Mutex::Protocol::PriorityInheritance};
    Threading::ConditionVariable mCompleted;
    // Guarded by it.
    bool mIsComplete = false;
    bool mIsCancelled = false;
    StatusCode mFailure = StatusCode::Ok;
    // Of the D-Bus thread.
    Pending mCall;
};

/// With its outcome, which is the D-Bus thread's until it is complete, and the future's from then on.
template <class R>
class FutureResult final : public FutureState {
public:
    using FutureState::FutureState;
    std::optional<Outcome<R>> outcome;
};

}  // namespace Detail

/// The outcome of a call that another thread makes (Proxy::CallFromWorker): a worker waits for it while the
/// D-Bus thread sends the call and takes the reply. Its destruction cancels the call in each of its states,
/// also while the call waits to be sent; no limit refuses this.
///
///     Future<std::string> path = mRoom.CallFromWorker(Thermostat1::ExportLog, "pw");
///     Outcome<std::string> outcome = path.Wait(3s);
///
/// Any thread, one at a time, but no wait on the D-Bus thread. It may outlive proxy and bus.
template <class R>
class [[nodiscard]] Future {
public:
    /// None: Wait answers NotInitialized.
    Future() noexcept = default;
    /// From Proxy::CallFromWorker.
    explicit Future(std::shared_ptr<Detail::FutureResult<R>> state) noexcept : mState(std::move(state)) {}
    /// Takes the call over; `other` has none then.
    Future(Future&& other) noexcept = default;
    /// The call held before is cancelled.
    Future& operator=(Future&& other) noexcept {
        if (this != &other) {
            Reset();
            mState = std::move(other.mState);
        }
        return *this;
    }
    ~Future() { Reset(); }

    /// Waits for the outcome, at most `limit`; 0 and below do not wait, Remote::NO_LIMIT waits as long as it
    /// takes. That is beside the call's own limit, after which the outcome is there, a `Timeout` too.
    /// CLOCK_MONOTONIC.
    ///
    /// The outcome, as of Call; it is given out once. And:
    /// Timeout: not within the limit; the call goes on, and may be waited for again. IsDone distinguishes it
    /// from the peer's. Deadlock: this is the D-Bus thread, which would wait for itself; immediately, also
    /// when the outcome is there. Stopping: the bus closes, or has closed. NotInitialized: the bus has not
    /// been opened; or the outcome was given out already. ResourceUnavailable: too many jobs wait for the
    /// D-Bus thread (Bus::SetWaitingJobs); it was not sent.
    ///
    /// As with every wait of this library, the stop signal of a thread does not end it (StopSignal): a thread
    /// that is to stop soon waits in short pieces and looks between them, and a watched thread reports its
    /// work there (ThreadWatched).
    Outcome<R> Wait(std::chrono::milliseconds limit) {
        if (mState == nullptr) {
            return StatusCode::NotInitialized;
        }
        if (const StatusCode status = mState->Wait(limit); status != StatusCode::Ok) {
            return Error(status);
        }
        const std::shared_ptr<Detail::FutureResult<R>> state = std::move(mState);
        if (!state->outcome.has_value()) {
            return Error(state->GetFailure());
        }
        return std::move(*state->outcome);
    }
    /// Whether the outcome is there: a Wait gives it immediately, but on the D-Bus thread.
    bool IsDone() const noexcept { return mState != nullptr && mState->IsComplete(); }
    /// Whether there is a call, whose outcome has not been given out.
    explicit operator bool() const noexcept { return mState != nullptr; }
    /// Cancels. Harmless when there is none.
    void Reset() noexcept {
        if (mState != nullptr) {
            Detail::FutureState::Cancel(std::move(mState));
            mState = nullptr;
        }
    }

private:
    std::shared_ptr<Detail::FutureResult<R>> mState;
};

}  // namespace mwl::Typed
