#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <utility>

#include "support/wait_until.h"

namespace tern::test {

/// Whether a thread of this process sleeps in the kernel.
inline bool IsAsleep(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    const std::string stat((std::istreambuf_iterator<char>(file)), {});
    const std::size_t name = stat.rfind(") ");  // the state follows the name, which is in parentheses
    return name != std::string::npos && stat.compare(name + 2, 1, "S") == 0;
}

/// A call on a thread of its own; joined at the end of the block.
class OtherThread {
public:
    explicit OtherThread(std::function<void()> call)
        : mThread([this, call = std::move(call)] {
              mId = gettid();
              call();
              mHasReturned = true;
          }) {}
    ~OtherThread() { mThread.join(); }
    OtherThread(const OtherThread&) = delete;
    OtherThread& operator=(const OtherThread&) = delete;

    /// Waits until the call has returned or sleeps; true when it sleeps.
    bool IsHeldUp() {
        return WaitUntil([this] { return mHasReturned || (mId != 0 && IsAsleep(mId)); }) && !mHasReturned;
    }

private:
    std::atomic<pid_t> mId{0};
    std::atomic<bool> mHasReturned{false};
    std::thread mThread;
};

}  // namespace tern::test
