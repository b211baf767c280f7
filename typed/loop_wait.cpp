#include <tern/typed/loop_wait.h>

#include <tern/typed/task_frame.h>
#include <time.h>

#include <cassert>
#include <cerrno>
#include <utility>

#include "typed/bus_access.h"
#include "typed/bus_core.h"
#include "typed/reply_state.h"

namespace mwl::Typed::Detail {

namespace {

/// How much later than asked for it may be, so that wake-ups are shared.
constexpr std::uint64_t ACCURACY_MICROSECONDS = 1000;
/// A descriptor that is ready comes before a limit that is over in the same turn.
constexpr std::int64_t AFTER_DESCRIPTORS = SD_EVENT_PRIORITY_NORMAL + 1;

/// The loop's own time is that of the turn's beginning, which may be long ago.
std::uint64_t GetMicroseconds() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail with this clock
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000 +
           1;
}

}  // namespace

void ReleaseSource::operator()(sd_event_source* source) const noexcept {
    sd_event_source_disable_unref(source);
}

std::shared_ptr<ReplyState> StateOf(const Bus& bus) noexcept {
    return BusAccess::GetState(bus);
}

LoopWait::LoopWait(std::shared_ptr<ReplyState> state) noexcept : mState(std::move(state)) {}

LoopWait::~LoopWait() {
    assert(!IsWaiting() || mState->dispatcher.IsHere());
}

void LoopWait::SetDescriptor(int fd, std::uint32_t events) noexcept {
    mFd = fd;
    mWanted = events;
    mHasDescriptor = true;
}

bool LoopWait::Begin(std::coroutine_handle<> waiting) noexcept {
    BusCore* const core = mState->core;
    if (core != nullptr && core->IsNew()) {
        mEnd = End::Error;
        mError = StatusCode::NotInitialized;
        return false;
    }
    assert(core == nullptr || mState->dispatcher.IsHere());
    if (core == nullptr || !core->AddStoppable(*this)) {
        mEnd = End::Stop;
        return false;
    }
    if (const int r = AddSources(core->GetLoop()); r < 0) {
        Leave();
        mTimer.reset();
        mReadiness.reset();
        mEnd = End::Error;
        mError = mw::tern::MakeStatusCodeFromReturnCode(r);
        return false;
    }
    mWaiting = waiting;
    return true;
}

int LoopWait::AddSources(sd_event* loop) noexcept {
    int r = 0;
    if (mHasDescriptor) {
        sd_event_source* source = nullptr;
        r = sd_event_add_io(loop, &source, mFd, mWanted, OnReady, this);
        mReadiness.reset(source);
    }
    if (r >= 0 && mLimit.has_value() && mLimit->GetMicroseconds() != WaitLimit::FOREVER) {
        sd_event_source* source = nullptr;
        r = sd_event_add_time(loop, &source, CLOCK_MONOTONIC, GetMicroseconds() + mLimit->GetMicroseconds(),
                              ACCURACY_MICROSECONDS, OnTime, this);
        mTimer.reset(source);
        if (r >= 0 && mHasDescriptor) {
            r = sd_event_source_set_priority(source, AFTER_DESCRIPTORS);
        }
    }
    return r;
}

/// The coroutine may destroy this one.
void LoopWait::Finish(End end) noexcept {
    Leave();
    mTimer.reset();
    mReadiness.reset();
    mEnd = end;
    ResumeContained(std::exchange(mWaiting, nullptr));
}

int LoopWait::OnTime(sd_event_source*, std::uint64_t, void* userdata) noexcept {
    static_cast<LoopWait*>(userdata)->Finish(End::Time);
    return 0;
}

int LoopWait::OnReady(sd_event_source*, int, std::uint32_t events, void* userdata) noexcept {
    auto& wait = *static_cast<LoopWait*>(userdata);
    wait.mEvents = events;
    wait.Finish(End::Ready);
    return 0;
}

void LoopWait::OnStop() noexcept {
    Finish(End::Stop);
}

}  // namespace mwl::Typed::Detail
