#include <tern/threading/thread_manager.h>

#include <tern/foundation/log.h>

#include <string>

#include "foundation/known_objects.h"
#include "platform/static_text.h"

namespace mwl::Threading {

namespace {

const StaticText LOGGER("Threading::ThreadManager");

}  // namespace

ThreadManager::ThreadManager(ThreadsMonitorInterface& monitor) : mMonitor(monitor) {}

// A worker whose registration was never taken back is not known any more either.
ThreadManager::~ThreadManager() {
    KnownObjects::RemoveAll(KnownObjects::Kind::Supervised, this);
}

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
