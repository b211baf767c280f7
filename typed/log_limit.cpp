#include "typed/log_limit.h"

#include <utility>

namespace mwl::Typed {

bool LogLimit::Allows(unsigned long& omitted) noexcept {
    const auto now = std::chrono::steady_clock::now();
    if (mWritten == 0 || now - mBegin >= PERIOD) {
        mBegin = now;
        mWritten = 0;
    }
    if (mWritten == MESSAGES) {
        ++mOmitted;
        return false;
    }
    ++mWritten;
    omitted = std::exchange(mOmitted, 0);
    return true;
}

}  // namespace mwl::Typed
