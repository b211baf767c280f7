#pragma once

#include <linux/futex.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>

#include <cstdint>

#include "real.h"
#include "thread.h"

// What the sources of the engine share.

namespace tern::schedules {

inline constexpr std::int64_t NANOSECONDS_PER_SECOND = 1000000000;
inline constexpr std::int64_t NANOSECONDS_PER_MILLISECOND = 1000000;
/// Where virtual time begins: not at 0, which code may take for "never".
inline constexpr std::int64_t BEGIN = 1000 * NANOSECONDS_PER_SECOND;

inline void WaitAtGate(Thread& thread) {
    while (thread.gate.exchange(0, std::memory_order_acquire) == 0) {
        Real::Get().systemCall(SYS_futex, &thread.gate, FUTEX_WAIT_PRIVATE, 0, nullptr);
    }
}

inline void OpenGate(Thread& thread) {
    thread.gate.store(1, std::memory_order_release);
    Real::Get().systemCall(SYS_futex, &thread.gate, FUTEX_WAKE_PRIVATE, 1);
}

constexpr std::uint64_t BitOf(int signal) {
    return std::uint64_t{1} << (signal - 1);
}

inline std::uint64_t BitsOf(const sigset_t& set) {
    std::uint64_t bits = 0;
    for (int signal = 1; signal <= 64; ++signal) {
        bits |= sigismember(&set, signal) == 1 ? BitOf(signal) : 0;
    }
    return bits;
}

inline bool IsRecursive(const pthread_mutex_t* mutex) {
    return (mutex->__data.__kind & 3) == PTHREAD_MUTEX_RECURSIVE_NP;
}

inline bool IsChecked(const pthread_mutex_t* mutex) {
    return (mutex->__data.__kind & 3) == PTHREAD_MUTEX_ERRORCHECK_NP;
}

inline std::int64_t ToNanoseconds(const timespec& time) {
    return static_cast<std::int64_t>(time.tv_sec) * NANOSECONDS_PER_SECOND + time.tv_nsec;
}

inline timespec ToTimespec(std::int64_t nanoseconds) {
    timespec time{};
    time.tv_sec = static_cast<time_t>(nanoseconds / NANOSECONDS_PER_SECOND);
    time.tv_nsec = static_cast<long>(nanoseconds % NANOSECONDS_PER_SECOND);
    return time;
}

inline const void* AsObject(long value) {
    return reinterpret_cast<const void*>(value);  // for the record only
}

}  // namespace tern::schedules
