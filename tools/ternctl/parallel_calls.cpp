#include "parallel_calls.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>
#include <utility>

#include "failure.h"

namespace ternctl {

namespace {

/// A message bus lets a connection have so many without an answer, at the least.
constexpr std::size_t MOST_AT_ONCE = 64;

}  // namespace

ParallelCalls::ParallelCalls(std::shared_ptr<mwl::Typed::BlockingBus> bus, std::chrono::milliseconds limit)
    : mBus(std::move(bus)), mLimit(limit) {}

void ParallelCalls::Add(std::string destination, std::string path, std::string interface, std::string member,
                        std::vector<std::string> arguments, Handler handler) {
    mWaiting.push_back({std::move(destination), std::move(path), std::move(interface), std::move(member),
                        std::move(arguments), std::move(handler)});
}

int ParallelCalls::OnReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    Call& call = *static_cast<Call*>(userdata);
    call.isAnswered = true;
    try {
        call.handler(reply);
    } catch (...) {
        call.owner->mThrown = std::current_exception();
    }
    return 1;
}

void ParallelCalls::Send(sd_bus* bus, Call& call) {
    sd_bus_message* made = nullptr;
    int r = sd_bus_message_new_method_call(bus, &made, call.destination.c_str(), call.path.c_str(),
                                           call.interface.c_str(), call.member.c_str());
    const mwl::Handle<sd_bus_message, sd_bus_message_unref> message(made);
    r = r < 0 ? r : sd_bus_message_set_auto_start(made, 0);
    for (const std::string& argument : call.arguments) {
        r = r < 0 ? r : sd_bus_message_append_basic(made, 's', argument.c_str());
    }
    sd_bus_slot* slot = nullptr;
    if (r >= 0) {
        r = sd_bus_call_async(bus, &slot, made, OnReply, &call,
                              static_cast<std::uint64_t>(mLimit.count()) * 1000);
        call.slot.reset(slot);
    }
    if (r == -ECONNRESET || r == -ENOTCONN || r == -EPIPE || r == -ESTALE) {
        throw Failure("the connection to the bus was lost");
    }
    if (r < 0) {
        throw SystemFailure("a call cannot be sent", -r);
    }
}

void ParallelCalls::Wait(sd_bus* bus, const Interrupt* interrupt) {
    const int fd = sd_bus_get_fd(bus);
    const int events = sd_bus_get_events(bus);
    std::uint64_t end = UINT64_MAX;
    if (fd < 0 || events < 0 || sd_bus_get_timeout(bus, &end) < 0) {
        throw Failure("the connection to the bus was lost");
    }
    int left = -1;
    if (end != UINT64_MAX) {
        timespec time{};
        clock_gettime(CLOCK_MONOTONIC, &time);
        const std::uint64_t now = static_cast<std::uint64_t>(time.tv_sec) * 1'000'000 +
                                  static_cast<std::uint64_t>(time.tv_nsec) / 1000;
        left = end > now ? static_cast<int>(std::min<std::uint64_t>((end - now) / 1000 + 1, INT_MAX)) : 0;
    }
    std::array fds{pollfd{fd, static_cast<short>(events), 0},
                   pollfd{interrupt != nullptr ? interrupt->GetFd() : -1, POLLIN, 0}};
    poll(fds.data(), fds.size(), left);
}

void ParallelCalls::Run(const Interrupt* interrupt) {
    sd_bus* const bus = mBus->GetBus();
    if (bus == nullptr) {
        throw Failure("there is no connection to the bus");
    }
    while (!mWaiting.empty() || !mSent.empty()) {
        while (!mWaiting.empty() && mSent.size() < MOST_AT_ONCE) {
            mSent.push_back(std::move(mWaiting.front()));
            mWaiting.pop_front();
            mSent.back().owner = this;
            Send(bus, mSent.back());
        }
        const int r = sd_bus_process(bus, nullptr);
        mSent.remove_if([](const Call& call) { return call.isAnswered; });
        if (mThrown) {
            std::rethrow_exception(mThrown);
        }
        if (interrupt != nullptr && interrupt->IsStopped()) {
            return;
        }
        if (r < 0 && r != -EINTR) {
            throw Failure("the connection to the bus was lost");
        }
        if (r == 0 && !mSent.empty()) {
            Wait(bus, interrupt);
        }
    }
}

}  // namespace ternctl
