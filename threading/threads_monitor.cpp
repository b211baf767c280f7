#include <tern/threading/threads_monitor.h>

#include <pthread.h>
#include <signal.h>
#include <tern/foundation/log.h>
#include <tern/threading/thread_manager.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "foundation/known_objects.h"
#include "foundation/tell.h"
#include "platform/static_text.h"
#include "threading/thread_life.h"

namespace mwl::Threading {

namespace {

const StaticText LOGGER("Threading::ThreadsMonitor");

}  // namespace

ThreadsMonitor::ThreadsMonitor(SignalsInterface& signals) : mSignals(signals) {}

ThreadsMonitor::~ThreadsMonitor() = default;

void ThreadsMonitor::AddWorkerThread(ThreadManager& thread) {
    TERN_LOG_TRACE(LOGGER, "Add Worker thread [%lu]", thread.GetThreadId());
    const std::lock_guard lock(mMutex);
    mWorkers.Add(thread);
    // As a rule the worker registers itself; the watcher does so without an id.
    const unsigned long id = thread.GetThreadId();
    KnownObjects::Add({.object = &thread,
                       .threadId = id == 0 || id == pthread_self() ? gettid() : 0,
                       .kind = KnownObjects::Kind::Supervised});
    TERN_TELL(ThreadAdded, thread_added, &thread, 0);
}

void ThreadsMonitor::RemoveWorkerThread(ThreadManager& thread) {
    TERN_LOG_TRACE(LOGGER, "Remove Worker thread [%lu]", thread.GetThreadId());
    const std::lock_guard lock(mMutex);
    mWorkers.Remove(thread);
    TERN_TELL(ThreadRemoved, thread_removed, &thread, 0);
    KnownObjects::Remove(KnownObjects::Kind::Supervised, &thread);
}

void ThreadsMonitor::SetDBusThreadId(unsigned long threadId) {
    const std::lock_guard lock(mMutex);
    mDBusThreadId = threadId;
    mDBusThreadNumber = threadId == pthread_self() ? ThreadLife::GetOwnNumber() : 0;
}

void ThreadsMonitor::StopWorkerThreads() {
    const std::lock_guard lock(mMutex);
    mWorkers.StopAll();
}

void ThreadsMonitor::NotifyDBusThreadToStop(bool onFailure) {
    const std::lock_guard lock(mMutex);
    if (mDBusThreadNotified) {
        TERN_LOG_INFO(LOGGER, "D-Bus thread [%lu] already notified to stop", mDBusThreadId);
        return;
    }
    TERN_LOG_INFO(LOGGER, "Notify D-Bus thread to stop [%lu]", mDBusThreadId);
    // Before the signal, and whatever becomes of it: the D-Bus thread may end immediately.
    mHasFailure = onFailure;
    const int error = SendSignalToDBusThread();
    if (error != 0) {
        TERN_LOG_ERROR(LOGGER, "Failed to notify thread [%lu], error=%d", mDBusThreadId, error);
        return;
    }
    TERN_LOG_INFO(LOGGER, "Notification sent to thread [%lu]", mDBusThreadId);
    mDBusThreadNotified = true;
}

void ThreadsMonitor::NotifyDBusThreadToStopOnFailure() {
    NotifyDBusThreadToStop(true);
}

// A worker that fails late, when the D-Bus thread has ended, must not signal whoever has its id by then.
int ThreadsMonitor::SendSignalToDBusThread() {
    const auto send = [this] { return mSignals.SendSignal(mDBusThreadId, SIGTERM); };
    return mDBusThreadNumber == 0 ? send() : ThreadLife::CallWhileAlive(mDBusThreadNumber, send, ESRCH);
}

bool ThreadsMonitor::HasFailure() {
    const std::lock_guard lock(mMutex);
    return mHasFailure;
}

}  // namespace mwl::Threading
