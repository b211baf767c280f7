#pragma once

#include <atomic>
#include <chrono>
#include <thread>

namespace hostile {

/// A client that means well: calls the attacked service every few milliseconds, on a thread of its own, and
/// keeps how long its longest call took. Throws std::runtime_error when the service does not answer at first.
class OtherClient {
public:
    OtherClient();
    ~OtherClient();
    OtherClient(const OtherClient&) = delete;
    OtherClient& operator=(const OtherClient&) = delete;

    /// How many attacks the service has been through, as it said last.
    unsigned Done() const { return mDone; }
    std::chrono::milliseconds LongestCall() const { return std::chrono::milliseconds(mLongestMs); }
    /// Calls that were not answered.
    unsigned Failures() const { return mFailures; }

private:
    void Run();

    std::atomic<bool> mStop{false};
    std::atomic<unsigned> mDone{0};
    std::atomic<long> mLongestMs{0};
    std::atomic<unsigned> mFailures{0};
    std::thread mThread;
};

}  // namespace hostile
