#pragma once

#include <gmock/gmock.h>
#include <tern/threading/thread_watched.h>
#include <tern/threading/threads_watcher_interface.h>

namespace mwl::Threading {

class MockWatcher : public ThreadsWatcherInterface {
public:
    MOCK_METHOD(void, Register, (ThreadWatched * thread), (override));
    MOCK_METHOD(void, Unregister, (ThreadWatched * thread), (override));
    MOCK_METHOD(void, TaskWatch, (), (override));
    MOCK_METHOD(void, Stop, (), (override));
};

}  // namespace mwl::Threading
