#include "trials.h"

#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

namespace thermostat {

namespace {

constexpr int EXIT_TRIAL = 3;

/// A caller never comes back, not even for a signal.
[[noreturn]] void HangForEver() {
    for (;;) {
        pause();
    }
}

}  // namespace

bool Trials::Begin(const std::string& what) {
    if (what == "hang-bus") {
        HangForEver();
    } else if (what == "hang-control") {
        mLoop.Hang();
    } else if (what == "hang-pool") {
        mPool.Queue(HangForEver);
    } else if (what == "fail-control") {
        mLoop.Fail();
    } else if (what == "fail-pool") {
        mPool.Queue([] { throw std::runtime_error("the trial of a failing job"); });
    } else if (what == "abort") {
        std::abort();
    } else if (what == "exit") {
        _exit(EXIT_TRIAL);
    } else {
        return false;
    }
    return true;
}

}  // namespace thermostat
