#include "threading/thread_life.h"

#include <pthread.h>

#include <mutex>

namespace mwl::Threading {

namespace {

/// The entry of one thread in the list of those that live.
class Entry {
public:
    Entry();
    ~Entry();
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

    unsigned int number = 0;
    Entry* next = nullptr;
    Entry* former = nullptr;
};

// Nothing of it is ever destroyed: threads may outlive main.
constinit std::mutex gMutex;
constinit unsigned int gLatestNumber = 0;  ///< guarded by gMutex
constinit Entry* gFirst = nullptr;         ///< guarded by gMutex, and all links too
constinit thread_local Entry* tOwn = nullptr;

/// In a forked child: of all threads only this one has come along. The others' entries lie in memory that new
/// threads get.
void KeepOwnEntry() noexcept {
    gFirst = tOwn;
    if (tOwn != nullptr) {
        tOwn->next = nullptr;
        tOwn->former = nullptr;
    }
    gMutex.unlock();
}

[[maybe_unused]] const int gAtFork =
    pthread_atfork([] { gMutex.lock(); }, [] { gMutex.unlock(); }, &KeepOwnEntry);

Entry::Entry() {
    const std::lock_guard lock(gMutex);
    tOwn = this;
    number = ++gLatestNumber;
    next = gFirst;
    if (next != nullptr) {
        next->former = this;
    }
    gFirst = this;
}

Entry::~Entry() {
    const std::lock_guard lock(gMutex);
    tOwn = nullptr;
    (former != nullptr ? former->next : gFirst) = next;
    if (next != nullptr) {
        next->former = former;
    }
}

}  // namespace

unsigned int ThreadLife::GetOwnNumber() {
    thread_local const Entry tEntry;
    return tEntry.number;
}

int ThreadLife::CallWhileAlive(unsigned int number, const std::function<int()>& call, int otherwise) {
    const std::lock_guard lock(gMutex);
    for (const Entry* entry = gFirst; entry != nullptr; entry = entry->next) {
        if (entry->number == number) {
            return call();
        }
    }
    return otherwise;
}

}  // namespace mwl::Threading
