#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "bus_owners.h"
#include "complaints.h"
#include "epoch.h"
#include "tally.h"

namespace soak {

/// One client on a thread of its own: calls its object of the extension, reads and writes its property, and
/// listens to signals, all the time; each answer is known beforehand and compared. After a failure it
/// connects anew and waits for the extension's name; it calls as soon as that is there, however young the
/// extension is.
class Client {
public:
    struct Habits {
        std::chrono::milliseconds pause;  ///< mean time between two calls
        std::chrono::milliseconds limit;  ///< a reply that takes longer is lost
        /// The extension may end at any time, without a word of the epoch: a call that fails is in order when
        /// the extension, or the bus, is another one afterwards. And it may be short of what a job needs: an
        /// answer that says so is in order.
        bool isHarmed = false;
    };
    /// What was asked to be kept and what was answered to be, the last number each. What is on record is
    /// between the two.
    struct Promise {
        std::uint64_t asked = 0;
        std::uint64_t answered = 0;
    };
    /// How it went for some time.
    struct Spell {
        std::chrono::milliseconds longest{0};  ///< without an answer, the time that lasts included
        std::uint64_t answers = 0;
    };

    /// Epoch and complaints outlive the client. Nothing starts yet.
    Client(unsigned int number, std::string address, Habits habits, const Epoch& epoch,
           Complaints& complaints);
    /// Stops.
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void Start();
    /// Waits for the call in progress.
    void Stop();
    Tally GetTally() const;
    Promise GetPromise() const;
    /// From the time when it was taken before, or from the start.
    Spell TakeSpell();

private:
    void Run();
    void Session();
    bool Listen();
    bool WaitForExtension();
    bool CallSomething();
    bool Echo();
    bool Count();
    bool Work();
    bool Keep();
    bool WriteAndRead();
    bool BeRefused();

    Message NewCall(const std::string& interface, const char* member) const;
    bool Call(sd_bus_message* call, Message& reply, const std::string& refusal = "");
    bool Check(bool isRight, const std::string& what);
    void Complain(const std::string& complaint);
    bool IsInterrupted() const { return mEpoch.Now() != mSessionEpoch; }
    /// Of a call that has failed: whether that was because extension or bus were ended.
    bool WasCutOff();
    /// The extension's name's on the bus; empty when there is none, or no bus.
    std::string GetOwner();
    /// Of the answer of a job. False when there is nothing to read in it.
    bool IsDone(sd_bus_message* reply, const std::string& what);
    std::string RandomText();
    std::size_t Random(std::size_t below);
    static int OnTick(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int OnChanged(sd_bus_message* message, void* userdata, sd_bus_error* error);

    const unsigned int mNumber;
    const std::string mAddress;
    const std::string mPath;
    const Habits mHabits;
    const Epoch& mEpoch;
    Complaints& mComplaints;
    std::atomic<bool> mStopping{false};
    std::thread mThread;

    // Client's thread only.
    std::mt19937 mRandom;
    Bus mBus;
    std::string mOwner;  ///< the extension of this session
    unsigned int mSessionEpoch = 0;
    std::uint64_t mTick = 0;     ///< the latest of this session, 0 before the first
    std::uint64_t mChanges = 0;  ///< announced in this session
    std::uint64_t mWrites = 0;   ///< of this session

    mutable std::mutex mMutex;  ///< guards what follows
    Tally mTally;
    Promise mPromise;
    Spell mSpell;
    std::chrono::steady_clock::time_point mLastAnswer = std::chrono::steady_clock::now();
};

}  // namespace soak
