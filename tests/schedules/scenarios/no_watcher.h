#pragma once

#include <tern/threading/threads_watcher_interface.h>

namespace tern::schedules {

/// Watches nobody: for scenarios that are not about the watch.
class NoWatcher : public mwl::Threading::ThreadsWatcherInterface {
public:
    void Register(mwl::Threading::ThreadWatched* /*thread*/) override {}
    void Unregister(mwl::Threading::ThreadWatched* /*thread*/) override {}
    void TaskWatch() override {}
    void Stop() override {}
};

}  // namespace tern::schedules
