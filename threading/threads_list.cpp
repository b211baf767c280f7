#include <tern/threading/threads_list.h>

#include <tern/foundation/log.h>
#include <tern/threading/thread_manager.h>

#include <algorithm>
#include <string>

#include "platform/static_text.h"

namespace mwl::Threading {

namespace {

const StaticText LOGGER("Threading::ThreadsList");

}  // namespace

ThreadsList::~ThreadsList() = default;

void ThreadsList::Add(ThreadManager& thread) {
    mThreads.emplace_back(thread);
}

void ThreadsList::Remove(ThreadManager& thread) {
    const auto found = std::find_if(mThreads.begin(), mThreads.end(),
                                    [&](const ThreadManager& entry) { return &entry == &thread; });
    if (found == mThreads.end()) {
        TERN_LOG_ERROR(LOGGER, "Failed to remove thread [%lu] from list", thread.GetThreadId());
        return;
    }
    mThreads.erase(found);
    TERN_LOG_TRACE(LOGGER, "Thread [%lu] removed from list", thread.GetThreadId());
}

void ThreadsList::StopAll() const {
    for (ThreadManager& thread : mThreads) {
        thread.Stop();
    }
}

}  // namespace mwl::Threading
