#pragma once

#include <systemd/sd-bus.h>
#include <tern/typed/blocking_bus.h>

#include <chrono>
#include <deque>
#include <exception>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "foundation/handle.h"
#include "interrupt.h"

namespace ternctl {

/// Calls that wait for their answers at the same time, on one connection, so that a peer that hangs keeps
/// nobody else. None of them starts a service.
class ParallelCalls {
public:
    /// Gets the reply, which may be an error: also that it did not come within the limit.
    using Handler = std::function<void(sd_bus_message* reply)>;

    /// Each call is waited for at most for `limit`. REQUIRES: `bus` is connected.
    ParallelCalls(std::shared_ptr<mwl::Typed::BlockingBus> bus, std::chrono::milliseconds limit);

    /// Is sent by Run. The arguments are strings.
    void Add(std::string destination, std::string path, std::string interface, std::string member,
             std::vector<std::string> arguments, Handler handler);
    /// Makes the calls, those that handlers add included, and returns when all have been answered, or when
    /// `interrupt`, unless null, has stopped the program. Throws Failure when the connection is lost, and
    /// what a handler throws.
    void Run(const Interrupt* interrupt);

private:
    struct Call {
        std::string destination;
        std::string path;
        std::string interface;
        std::string member;
        std::vector<std::string> arguments;
        Handler handler;
        ParallelCalls* owner = nullptr;
        mwl::Handle<sd_bus_slot, sd_bus_slot_unref> slot{};
        bool isAnswered = false;
    };

    static int OnReply(sd_bus_message* reply, void* userdata, sd_bus_error*);
    void Send(sd_bus* bus, Call& call);
    void Wait(sd_bus* bus, const Interrupt* interrupt);

    std::shared_ptr<mwl::Typed::BlockingBus> mBus;
    std::chrono::milliseconds mLimit;
    std::deque<Call> mWaiting;
    std::list<Call> mSent;
    std::exception_ptr mThrown;
};

}  // namespace ternctl
