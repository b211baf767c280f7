#include <tern/typed/future.h>

#include <tern/threading/lock.h>

#include <algorithm>
#include <limits>

#include "typed/reply_state.h"

namespace mwl::Typed::Detail {

using Threading::Lock;

namespace {

/// A job that the dispatcher refuses or drops takes this with it, which completes the future then.
class Given {
public:
    explicit Given(std::shared_ptr<FutureState> state) noexcept : mState(std::move(state)) {}
    Given(Given&& other) noexcept = default;
    Given& operator=(Given&&) = delete;
    ~Given() {
        if (mState != nullptr) {
            const StatusCode status = mState->GetRemote()->GetState()->dispatcher.GetStatus();
            mState->Complete(status == StatusCode::Ok ? StatusCode::ResourceUnavailable : status);
        }
    }
    void Take() noexcept { mState.reset(); }

private:
    std::shared_ptr<FutureState> mState;
};

}  // namespace

FutureState::FutureState(std::shared_ptr<const Remote> remote)
    : mRemote(std::move(remote)), mPlace(Dispatcher::Reserve()) {}

void FutureState::Post(const std::shared_ptr<FutureState>& state, Job job) {
    Given given(state);
    // Refused: `given` sees to it.
    static_cast<void>(state->mRemote->GetState()->dispatcher.Post(
        [given = std::move(given), job = std::move(job)]() mutable {
            job();
            given.Take();
        }));
}

void FutureState::SetCall(Pending call) noexcept {
    mCall = std::move(call);
}

bool FutureState::IsCancelled() const noexcept {
    const Lock lock(mMutex);
    return mIsCancelled;
}

void FutureState::Complete(StatusCode failure) noexcept {
    const Lock lock(mMutex);
    if (!mIsComplete) {
        mFailure = failure;
        mIsComplete = true;
        mCompleted.NotifyAll();
    }
}

StatusCode FutureState::Wait(std::chrono::milliseconds limit) noexcept {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::milliseconds LONGEST{std::numeric_limits<int>::max()};

    if (mRemote->GetState()->dispatcher.IsHere()) {
        return StatusCode::Deadlock;
    }
    const auto begin = Clock::now();
    Lock lock(mMutex);
    while (!mIsComplete) {
        const auto passed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
        if (limit <= passed) {
            return StatusCode::Timeout;
        }
        // Woken for whatever reason: looks again.
        static_cast<void>(
            mCompleted.WaitFor(lock, static_cast<int>(std::min(limit - passed, LONGEST).count())));
    }
    return StatusCode::Ok;
}

bool FutureState::IsComplete() const noexcept {
    const Lock lock(mMutex);
    return mIsComplete;
}

StatusCode FutureState::GetFailure() const noexcept {
    const Lock lock(mMutex);
    return mFailure;
}

void FutureState::Cancel(std::shared_ptr<FutureState> state) noexcept {
    {
        const Lock lock(state->mMutex);
        state->mIsCancelled = true;
        if (state->mIsComplete) {
            return;
        }
    }
    Dispatcher& dispatcher = state->mRemote->GetState()->dispatcher;
    if (dispatcher.IsHere()) {
        state->mCall.Reset();
        return;
    }
    Dispatcher::Place place = std::move(state->mPlace);
    // Refused when the bus has closed: then the call has been completed.
    static_cast<void>(
        dispatcher.Post(std::move(place), [state = std::move(state)] { state->mCall.Reset(); }));
}

}  // namespace mwl::Typed::Detail
