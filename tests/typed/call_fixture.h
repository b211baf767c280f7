#pragma once

// What the tests of Call share: a client, and a service on a thread of the same process. Include it in the
// one source of a test program.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <tern/typed/call.h>
#include <tern/typed/proxy.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <coroutine>
#include <cstddef>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/allocations.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "typed/peer_service.h"

TERN_INTERPOSE(int, sd_bus_call_async,
               (sd_bus * bus, sd_bus_slot** slot, sd_bus_message* call, sd_bus_message_handler_t handler,
                void* userdata, uint64_t limit),
               (bus, slot, call, handler, userdata, limit))
TERN_INTERPOSE(int, sd_bus_message_new_method_call,
               (sd_bus * bus, sd_bus_message** call, const char* destination, const char* path,
                const char* interface, const char* member),
               (bus, call, destination, path, interface, member))

namespace mwl::Typed::Tests {

using namespace std::chrono_literals;
using tern::test::Ask;
using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::PEER;
using tern::test::Peer1;
using tern::test::PEER_PATH;
using tern::test::PeerService;
using tern::test::PrivateBus;
using tern::test::Said;
using tern::test::Served;
using tern::test::WaitUntil;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

using Number = Peer1::Number;

/// The least of a coroutine: begins at once, and ends with this object.
class Story {
public:
    struct promise_type {  // NOLINT(readability-identifier-naming): the language's name
        Story get_return_object() { return Story(Handle::from_promise(*this)); }
        std::suspend_never initial_suspend() noexcept { return {}; }
        std::suspend_always final_suspend() noexcept { return {}; }
        void return_void() {}
        void unhandled_exception() { throw; }
    };
    using Handle = std::coroutine_handle<promise_type>;

    Story() = default;
    explicit Story(Handle handle) : mHandle(handle) {}
    Story(Story&& other) noexcept : mHandle(std::exchange(other.mHandle, {})) {}
    Story& operator=(Story&& other) noexcept {
        std::swap(mHandle, other.mHandle);
        return *this;
    }
    ~Story() {
        if (mHandle) {
            mHandle.destroy();
        }
    }
    bool IsDone() const { return mHandle && mHandle.done(); }

private:
    Handle mHandle;
};

/// A client's bus and proxy. The daemon comes first, threads later.
class CallTest : public testing::Test {
protected:
    void Begin(Served::Start start = nullptr) {
        served.emplace(std::move(start));
        proxy.emplace(*served->typed, PEER, PEER_PATH);
    }
    void TearDown() override {
        served.reset();
        service.reset();
    }
    template <typename Function>
    auto On(Function function) {
        return served->On(function);
    }

    PrivateBus daemon{
        "<limit name='max_replies_per_connection'>20000</limit>"
        "<limit name='max_incoming_bytes'>200000000</limit>"
        "<limit name='max_outgoing_bytes'>200000000</limit>"
        "<limit name='max_message_size'>128000000</limit>"};
    std::optional<PeerService> service;
    std::optional<Served> served;
    std::optional<Proxy<Peer1>> proxy;
};

/// With the service on a thread of this process.
class Calls : public CallTest {
protected:
    Calls() {
        service.emplace();
        Begin();
    }
    /// The service has taken what was sent before.
    void Settle() {
        EXPECT_EQ(Said(Ask(*served, [&] { return proxy->Call(Peer1::Count); })), "");
    }
    std::size_t CountPending() {
        return On([&] { return served->typed->GetCounters().pendingCalls; });
    }
};

}  // namespace mwl::Typed::Tests
