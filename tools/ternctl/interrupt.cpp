#include "interrupt.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>

#include "failure.h"

namespace ternctl {

namespace {

constexpr std::array SIGNALS{SIGINT, SIGTERM, SIGHUP};

// For the signal handler, which has nothing else.
volatile sig_atomic_t gIsStopped = 0;
volatile sig_atomic_t gFd = -1;
std::array<struct sigaction, SIGNALS.size()> gFormer;

void OnSignal(int) {
    const int former = errno;
    gIsStopped = 1;
    const std::uint64_t one = 1;
    static_cast<void>(write(gFd, &one, sizeof one) < 0);  // full: it is readable already
    errno = former;
}

}  // namespace

Interrupt::Interrupt() : mFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!mFd) {
        throw SystemFailure("no event descriptor", errno);
    }
    gIsStopped = 0;
    gFd = mFd.Get();
    struct sigaction action {};
    action.sa_handler = OnSignal;
    for (std::size_t i = 0; i < SIGNALS.size(); ++i) {
        sigaction(SIGNALS[i], nullptr, &gFormer[i]);
        // Under nohup(1) it is to go on when the terminal hangs up.
        if (SIGNALS[i] != SIGHUP || gFormer[i].sa_handler != SIG_IGN) {
            sigaction(SIGNALS[i], &action, nullptr);
        }
    }
}

Interrupt::~Interrupt() {
    for (std::size_t i = 0; i < SIGNALS.size(); ++i) {
        sigaction(SIGNALS[i], &gFormer[i], nullptr);
    }
}

bool Interrupt::IsStopped() const noexcept {
    return gIsStopped != 0;
}

Interrupt::Reason Interrupt::WaitUntil(Clock::time_point end, int input) const {
    for (;;) {
        if (IsStopped()) {
            return Reason::Stopped;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0) {
            return Reason::Time;
        }
        std::array fds{pollfd{mFd.Get(), POLLIN, 0}, pollfd{input, POLLIN, 0}};
        // In pieces: poll(2) takes an int.
        poll(fds.data(), fds.size(), static_cast<int>(std::min<std::int64_t>(left, 60'000)));
        if (!IsStopped() && fds[1].revents != 0) {
            return Reason::Input;
        }
    }
}

}  // namespace ternctl
