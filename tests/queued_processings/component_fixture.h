#pragma once

// What the tests of the queued component share. Include it in the one source of a test program.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <tern/queued_processings/component.h>
#include <tern/threading/signals_interface.h>
#include <tern/threading/threads_monitor.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <vector>

#include "queued_processings/fakes.h"
#include "support/allocations.h"
#include "support/child.h"
#include "support/interpose.h"
#include "support/late_set_value.h"
#include "support/log_capture.h"
#include "support/wait_until.h"

TERN_INTERPOSE(int, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex),
               (condition, mutex))
TERN_INTERPOSE(int, pthread_create,
               (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument),
               (thread, attributes, body, argument))

namespace tern::test::queued {

using mwl::StatusCode;
using mwl::QueuedProcessings::Component;
using mwl::QueuedProcessings::ComponentInterface;
using mwl::QueuedProcessings::ThreadManager;
using tern::test::ChildResult;
using tern::test::Error;
using tern::test::FakeExecutor;
using tern::test::FakeMonitor;
using tern::test::FaultScope;
using tern::test::Info;
using tern::test::LateSetValue;
using tern::test::LogCapture;
using tern::test::LogEntry;
using tern::test::NothrowMemoryShortage;
using tern::test::Notice;
using tern::test::RunInChild;
using tern::test::Trace;
using tern::test::WaitUntil;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

inline const std::string LOGGER = "QueuedProcessings::Component";
inline const std::string MANAGER_LOGGER = "QueuedProcessings::ThreadManager";

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
inline constexpr int WAKE_UP_ROUNDS = 5000;
inline constexpr int LIFE_ROUNDS = 200;
#else
inline constexpr int WAKE_UP_ROUNDS = 100000;
inline constexpr int LIFE_ROUNDS = 2000;
#endif

inline const LogEntry MAIN_START = Trace(LOGGER, "ThreadMain: Start Upload thread");
inline const LogEntry MAIN_EXIT = Trace(LOGGER, "ThreadMain: Exit Upload thread");
inline const LogEntry CREATED = Trace(LOGGER, "Start: Upload thread created, and Upload initialized");
inline const LogEntry WAKE_UP = Trace(LOGGER, "WakeUp: launch Upload execution");
inline const LogEntry COMPLETED =
    Trace(LOGGER, "Join: Upload thread execution has completed, Upload service stopped");
inline const LogEntry LEAVE =
    Notice(MANAGER_LOGGER, "Wait: D-Bus thread is stopping, this thread has to stop too. Leave the loop");
inline const LogEntry TWICE = Error(LOGGER, "Start: Do not call start method twice");

static_assert(std::is_base_of_v<ComponentInterface, Component>);
static_assert(!std::is_copy_constructible_v<Component>);

/// A trace message that ends in "[ADDRESS]".
inline LogEntry WithAddress(const std::string& text, const void* address) {
    char printed[32];
    snprintf(printed, sizeof printed, "%p", address);
    return Trace(LOGGER, text + "[" + printed + "]");
}

/// The address printed in the one entry that begins so, null when there is none.
inline const void* PrintedAddress(const std::vector<LogEntry>& entries, const std::string& text) {
    for (const LogEntry& entry : entries) {
        void* address = nullptr;
        if (entry.text.starts_with(text) && sscanf(entry.text.c_str() + text.size(), "[%p]", &address) == 1) {
            return address;
        }
    }
    return nullptr;
}

class QueuedComponent : public testing::Test {
protected:
    void EndThread() {
        mComponent->Stop();
        mComponent->Join();
    }
    bool WaitForRuns(int runs) {
        return WaitUntil([&] { return mExecutor.executed >= runs; });
    }

    LogCapture mLog;
    FakeMonitor mMonitor;
    FakeExecutor mExecutor;
    std::unique_ptr<Component> mComponent =
        std::make_unique<Component>("Upload", "upload", mMonitor, mExecutor);
};

}  // namespace tern::test::queued
