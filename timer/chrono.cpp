#include <tern/timer/chrono.h>

#include <tern/foundation/log.h>
#include <time.h>

#include <limits>

#include "platform/static_text.h"

namespace mwl::Timer {

namespace {

const StaticText LOGGER("Timer::Chrono");

/// The first double that no total can hold: 2^64.
constexpr double BEYOND_TOTAL = 18446744073709551616.0;
static_assert(std::numeric_limits<unsigned long long>::digits == 64);

/// Not by std::chrono::system_clock, which ends in 2038 where the C++ library was built with 32-bit time.
std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds> Now() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>(
        std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec));
}

}  // namespace

Chrono::Chrono(const std::string& name) : mName(name) {}

Chrono::~Chrono() = default;

unsigned int Chrono::Start() {
    mOpen[mId] = Now();
    return mId;
}

void Chrono::Stop(unsigned int id, const std::string& /*label*/) {
    const auto open = mOpen.find(id);
    if (open == mOpen.end()) {
        return;
    }
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Now() - open->second);
    Store(static_cast<double>(elapsed.count()));
    mOpen.erase(open);
}

void Chrono::Store(double milliseconds) {
    const double total = static_cast<double>(mTotalMs) + milliseconds;
    if (total >= BEYOND_TOTAL) {
        mTotalMs = std::numeric_limits<unsigned long long>::max();
    } else if (total >= 0) {
        mTotalMs = static_cast<unsigned long long>(total);
    } else if (total < 0) {
        mTotalMs = 0;
    }
}

unsigned long long Chrono::Report() {
    TERN_LOG_NOTICE(LOGGER, "############ [%s] %s TOTAL Time: %llu ms", "Report", mName.c_str(), mTotalMs);
    return mTotalMs;
}

}  // namespace mwl::Timer
