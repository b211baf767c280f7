#pragma once

#include <gmock/gmock.h>
#include <tern/threading/signals_interface.h>
#include <tern/threading/thread_manager.h>
#include <tern/threading/threads_monitor_interface.h>

namespace mwl::Threading {

class MockSignals : public SignalsInterface {
public:
    MOCK_METHOD(int, SendSignal, (unsigned long threadId, int signal), (override));
};

class MockMonitor : public ThreadsMonitorInterface {
public:
    MOCK_METHOD(void, AddWorkerThread, (ThreadManager & thread), (override));
    MOCK_METHOD(void, RemoveWorkerThread, (ThreadManager & thread), (override));
    MOCK_METHOD(void, SetDBusThreadId, (unsigned long threadId), (override));
    MOCK_METHOD(void, StopWorkerThreads, (), (override));
    MOCK_METHOD(void, NotifyDBusThreadToStop, (bool onFailure), (override));
    MOCK_METHOD(void, NotifyDBusThreadToStopOnFailure, (), (override));
    MOCK_METHOD(bool, HasFailure, (), (override));
};

/// A worker with a thread id of the test's choice.
class MockWorker : public ThreadManager {
public:
    MockWorker(ThreadsMonitorInterface& monitor, unsigned long threadId) : ThreadManager(monitor) {
        mThreadId = threadId;
    }
    MOCK_METHOD(void, Stop, (), (override));
};

}  // namespace mwl::Threading
