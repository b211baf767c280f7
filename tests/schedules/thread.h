#pragma once

#include <pthread.h>
#include <signal.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <vector>

#include <poll.h>

namespace tern::schedules {

/// A thread of the run. One of them runs, the others wait at their gates.
struct Thread {
    static constexpr std::int64_t NO_LIMIT = -1;

    /// What it waits for.
    enum class Wait : std::uint8_t {
        Nothing,
        Mutex,
        Condition,
        Join,
        Futex,
        Signal,
        Descriptors,
        Sleep,
        Once,
        Others,  ///< that all other threads have ended
    };
    /// How its wait ended.
    enum class Reason : std::uint8_t { Come, TimedOut, Spurious, Interrupted };

    unsigned number = 0;
    pthread_t handle{};
    pid_t id = 0;
    bool isKnown = false;  ///< `id` and the signal mask are
    bool hasEnded = false;
    bool isDetached = false;
    bool isJoined = false;
    bool mayStay = false;    ///< need not have ended at the end of the run
    bool isToLeave = false;  ///< at the end of the run

    std::size_t couldRunSince = 0;  ///< step

    Wait wait = Wait::Nothing;
    Reason reason = Reason::Come;
    const void* object = nullptr;      ///< what it waits for
    pthread_mutex_t* mutex = nullptr;  ///< to be had behind a condition variable's wait
    const Thread* other = nullptr;     ///< to be joined
    std::int64_t limit = NO_LIMIT;     ///< virtual, ns
    std::vector<pollfd> descriptors;
    sigset_t awaited{};  ///< Wait::Signal

    sigset_t mask{};
    std::uint64_t pending = 0;  ///< bit N - 1: signal N
    std::atomic<int> gate{0};

    void* (*body)(void*) = nullptr;
    void* argument = nullptr;
};

}  // namespace tern::schedules
