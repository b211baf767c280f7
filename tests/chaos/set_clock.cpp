// Sets the time of day of one program, which loads this library before all others (LD_PRELOAD): the file that
// TERN_CHAOS_CLOCK names holds how many nanoseconds it goes ahead, as an int64_t, and may be written at any
// time. A container has no time of day of its own, and nobody wants that of the whole machine to be set.
//
// What reads the clock is led astray: clock_gettime(2), gettimeofday(2), time(2), timespec_get(3). What the
// kernel does by its own clock is not: times of files, and timers that are set to a time of day.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace {

constexpr std::int64_t NS_PER_SECOND = 1000000000;

/// Null until the file is mapped, and where there is none.
std::atomic<const std::atomic<std::int64_t>*> gAhead{nullptr};

bool IsTimeOfDay(clockid_t clock) {
    return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
}

void Shift(timespec& time) {
    const auto* const ahead = gAhead.load();
    if (ahead == nullptr) {
        return;
    }
    const std::int64_t shifted =
        std::int64_t{time.tv_sec} * NS_PER_SECOND + time.tv_nsec + ahead->load(std::memory_order_relaxed);
    time.tv_sec = static_cast<time_t>(shifted / NS_PER_SECOND);
    time.tv_nsec = static_cast<long>(shifted % NS_PER_SECOND);
}

using ReadClock = int (*)(clockid_t, timespec*);

/// The C library's, which needs no system call; it may be asked for before the constructor below has run.
int Read(clockid_t clock, timespec* time) {
    static const auto real = reinterpret_cast<ReadClock>(dlsym(RTLD_NEXT, "clock_gettime"));
    return real != nullptr ? real(clock, time) : static_cast<int>(syscall(SYS_clock_gettime, clock, time));
}

__attribute__((constructor)) void Map() {
    const char* const path = getenv("TERN_CHAOS_CLOCK");  // NOLINT(concurrency-mt-unsafe): no threads yet
    const int fd = path == nullptr ? -1 : open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return;
    }
    void* const memory = mmap(nullptr, sizeof(std::int64_t), PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    if (memory != MAP_FAILED) {
        gAhead = static_cast<const std::atomic<std::int64_t>*>(memory);
    }
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const int r = Read(clock, time);
    if (r == 0 && IsTimeOfDay(clock)) {
        Shift(*time);
    }
    return r;
}

__attribute__((visibility("default"))) int gettimeofday(timeval* __restrict time,
                                                        void* __restrict /*zone*/) noexcept {
    timespec now{};
    const int r = clock_gettime(CLOCK_REALTIME, &now);
    time->tv_sec = now.tv_sec;
    time->tv_usec = now.tv_nsec / 1000;
    return r;
}

__attribute__((visibility("default"))) time_t time(time_t* result) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (result != nullptr) {
        *result = now.tv_sec;
    }
    return now.tv_sec;
}

__attribute__((visibility("default"))) int timespec_get(timespec* time, int base) noexcept {
    return base == TIME_UTC && clock_gettime(CLOCK_REALTIME, time) == 0 ? base : 0;
}

}  // extern "C"
