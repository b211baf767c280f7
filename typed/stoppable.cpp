#include <tern/typed/stoppable.h>

#include <cassert>
#include <utility>

#include "typed/stoppables.h"

namespace mwl::Typed {

void Stoppable::Leave() noexcept {
    if (mList == nullptr) {
        return;
    }
    (mPrevious != nullptr ? mPrevious->mNext : mList->mFirst) = mNext;
    (mNext != nullptr ? mNext->mPrevious : mList->mLast) = mPrevious;
    mList = nullptr;
    mPrevious = nullptr;
    mNext = nullptr;
}

Stoppables::~Stoppables() {
    while (mFirst != nullptr) {
        mFirst->Leave();
    }
}

bool Stoppables::Add(Stoppable& waiting) noexcept {
    assert(!waiting.IsWaiting());
    if (mIsStopped) {
        return false;
    }
    waiting.mList = this;
    waiting.mPrevious = mLast;
    (mLast != nullptr ? mLast->mNext : mFirst) = &waiting;
    mLast = &waiting;
    return true;
}

void Stoppables::StopAll() noexcept {
    mIsStopped = true;
    while (mFirst != nullptr) {
        Stoppable& longest = *mFirst;
        longest.Leave();
        longest.OnStop();
    }
}

void Stoppables::TellAll() noexcept {
    Stoppables now;
    while (mFirst != nullptr) {
        Stoppable& longest = *mFirst;
        longest.Leave();
        now.Add(longest);
    }
    now.StopAll();
}

}  // namespace mwl::Typed
