#pragma once

#include <gtest/gtest.h>
#include <systemd/sd-event.h>
#include <tern/service/dbus_server_manager.h>
#include <tern/typed/bus.h>

#include <chrono>
#include <coroutine>
#include <functional>
#include <optional>
#include <utility>

#include "support/private_bus.h"
#include "support/wait_until.h"
#include "typed/served_bus.h"

namespace tern::test {

/// Whoever awaits it goes on when the test says so. One at a time.
class Gate {
public:
    struct Awaiter {
        Gate& gate;
        bool await_ready() const noexcept { return gate.mIsOpen; }
        void await_suspend(std::coroutine_handle<> waiting) noexcept { gate.mWaiting = waiting; }
        void await_resume() noexcept { gate.mIsPassed = true; }
        ~Awaiter() {
            if (!std::exchange(gate.mIsPassed, false)) {
                gate.mWaiting = nullptr;
            }
        }
    };

    Awaiter operator co_await() noexcept { return Awaiter{*this}; }
    /// Whether somebody waits.
    bool IsAwaited() const { return mWaiting != nullptr; }
    /// Lets it pass, now and from now on.
    void Open() {
        mIsOpen = true;
        if (mWaiting != nullptr) {
            std::exchange(mWaiting, nullptr).resume();
        }
    }

private:
    std::coroutine_handle<> mWaiting;
    bool mIsOpen = false;
    bool mIsPassed = false;
};

/// A coroutine of another kind, which throws at who resumes it.
class Foreign {
public:
    struct promise_type {
        Foreign get_return_object() noexcept { return Foreign(*this); }
        std::suspend_never initial_suspend() noexcept { return {}; }
        std::suspend_always final_suspend() noexcept { return {}; }
        void return_void() noexcept {}
        void unhandled_exception() { throw; }
    };

    Foreign(Foreign&& other) noexcept : mHandle(std::exchange(other.mHandle, nullptr)) {}
    Foreign& operator=(Foreign&&) = delete;
    ~Foreign() {
        if (mHandle != nullptr) {
            mHandle.destroy();
        }
    }

private:
    explicit Foreign(promise_type& promise)
        : mHandle(std::coroutine_handle<promise_type>::from_promise(promise)) {}

    std::coroutine_handle<> mHandle;
};

/// Counts how often it is made and destroyed; what a frame holds.
class Witness {
public:
    explicit Witness(int& alive) : mAlive(&alive) { ++alive; }
    Witness(Witness&& other) noexcept : mAlive(std::exchange(other.mAlive, nullptr)) {}
    Witness& operator=(Witness&&) = delete;
    ~Witness() {
        if (mAlive != nullptr) {
            --*mAlive;
        }
    }

private:
    int* mAlive;
};

/// A typed bus whose D-Bus thread is the test's own, on a private daemon.
class TaskBus {
public:
    TaskBus() {
        EXPECT_EQ(manager.Connect(), mwl::StatusCode::Ok);
        EXPECT_EQ(manager.AttachLoop(*loop), mwl::StatusCode::Ok);
        EXPECT_EQ(bus->Open(manager, *loop), mwl::StatusCode::Ok);
    }
    ~TaskBus() { bus.reset(); }
    TaskBus(const TaskBus&) = delete;
    TaskBus& operator=(const TaskBus&) = delete;

    /// Runs turns of the loop until it holds; false when it does not within the limit, or the loop has ended.
    template <typename Predicate>
    bool RunUntil(Predicate predicate) {
        const auto deadline = std::chrono::steady_clock::now() + GENEROUS_LIMIT;
        while (!predicate()) {
            if (std::chrono::steady_clock::now() >= deadline ||
                sd_event_get_state(loop->GetEvent()) == SD_EVENT_FINISHED) {
                return predicate();
            }
            EXPECT_GE(sd_event_run(loop->GetEvent(), 10000), 0);
        }
        return true;
    }
    /// Ends the loop as the service's end does, and gives its exit code.
    int End() {
        loop->End();
        return loop->Run();
    }
    /// The exit code of a loop that was asked to end.
    std::optional<int> GetExitCode() {
        int code = 0;
        if (sd_event_get_exit_code(loop->GetEvent(), &code) < 0) {
            return std::nullopt;
        }
        return code;
    }

    std::optional<TestLoop> loop{std::in_place};
    mw::tern::DBusServerManager manager{SERVICE};
    std::optional<mwl::Typed::Bus> bus{std::in_place};
};

}  // namespace tern::test
