#include <tern/foundation/log.h>
#include <tern/threading/thread_manager.h>

#include <string>

#include "platform/static_text.h"

namespace mwl::Threading {

namespace {

const StaticText LOGGER("Threading::ThreadManager");

}  // namespace

ThreadManager::ThreadManager(ThreadsMonitorInterface& monitor) : mMonitor(monitor) {}

ThreadManager::~ThreadManager() = default;

void ThreadManager::NotifyStarted() {
    mMonitor.AddWorkerThread(*this);
}

void ThreadManager::NotifyStopped() {
    mMonitor.RemoveWorkerThread(*this);
}

void ThreadManager::NotifyStop() {
    TERN_LOG_INFO(LOGGER, "Notify D-Bus thread to stop nominally");
    mMonitor.NotifyDBusThreadToStop(false);
}

void ThreadManager::NotifyFailure() {
    TERN_LOG_INFO(LOGGER, "Notify D-Bus thread to stop on failure");
    mMonitor.NotifyDBusThreadToStopOnFailure();
}

}  // namespace mwl::Threading
