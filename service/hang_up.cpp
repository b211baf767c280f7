#include "service/hang_up.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <exception>

namespace mwl::DBusService {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds FOR_EVER{-1};

enum class Outcome { Readable, LimitPassed, Failed };

/// Waits until one of the two is readable, -1 for none, at most so long.
Outcome Wait(int first, int second, milliseconds limit) {
    const auto deadline = steady_clock::now() + limit;
    for (;;) {
        pollfd both[] = {{first, POLLIN, 0}, {second, POLLIN, 0}};
        const milliseconds left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
        const int ready =
            poll(both, 2, limit == FOR_EVER ? -1 : static_cast<int>(std::max(left, milliseconds(0)).count()));
        if (ready > 0) {
            return Outcome::Readable;
        }
        if (ready < 0 && errno != EINTR) {  // a handler of the application may have run here
            return Outcome::Failed;
        }
        if (limit != FOR_EVER && steady_clock::now() >= deadline) {
            return Outcome::LimitPassed;
        }
    }
}

UniqueFd WatchStopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return UniqueFd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

}  // namespace

HangUp::HangUp(sd_bus* bus, From from, milliseconds limit) noexcept
    : mSocket(fcntl(sd_bus_get_fd(bus), F_DUPFD_CLOEXEC, 3)), mCancel(eventfd(0, EFD_CLOEXEC)) {
    if (from == From::StopSignal) {
        mSignals = WatchStopSignals();
    }
    if (!mSocket || !mCancel || (from == From::StopSignal && !mSignals)) {
        return;
    }
    try {
        mThread = std::thread([this, limit] { WaitAndHangUp(limit); });
    } catch (const std::exception&) {  // no memory or thread to be had: not armed
    }
}

void HangUp::End() {
    if (mThread.joinable()) {
        static_cast<void>(eventfd_write(mCancel.Get(), 1));  // cannot fail with valid arguments
        mThread.join();
    }
}

void HangUp::WaitAndHangUp(milliseconds limit) {
    // What fails must not hang up.
    if (mSignals && Wait(mCancel.Get(), mSignals.Get(), FOR_EVER) == Outcome::Failed) {
        return;
    }
    if (Wait(mCancel.Get(), -1, limit) == Outcome::LimitPassed) {
        mHasHungUp = true;
        static_cast<void>(
            shutdown(mSocket.Get(), SHUT_RDWR));  // one that is lost already has the same effect
    }
}

}  // namespace mwl::DBusService
