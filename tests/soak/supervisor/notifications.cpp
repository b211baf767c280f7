#include "notifications.h"

#include <algorithm>
#include <string>

namespace soak {

using std::chrono::milliseconds;

void Notifications::BeginLife() {
    while (mSocket.ReceiveNow()) {
    }
    mIsReady = false;
    mFeedings = 0;
    mLastFeeding = Clock::now();
    mLongestGap = Clock::duration::zero();
}

void Notifications::Receive(Clock::time_point deadline) {
    for (;;) {
        const auto rest = std::chrono::ceil<milliseconds>(deadline - Clock::now());
        const auto text = mSocket.Receive(std::max(rest, milliseconds(0)));
        if (!text) {
            return;
        }
        if (text->find("WATCHDOG=1") != std::string::npos) {
            ++mFeedings;
            mLongestGap = std::max(mLongestGap, Clock::now() - mLastFeeding);
            mLastFeeding = Clock::now();
        }
        if (text->find("READY=1") != std::string::npos) {
            mIsReady = true;
            mLastFeeding = Clock::now();
            return;
        }
    }
}

milliseconds Notifications::GetLongestGap() const {
    return std::chrono::duration_cast<milliseconds>(std::max(mLongestGap, Clock::now() - mLastFeeding));
}

}  // namespace soak
