#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>

// AddressSanitizer's allocator has locks that it does not bring over a fork(2): where another thread happens
// to hold one, the child hangs in its first allocation. So each fork of a test program waits until the other
// threads sleep, a fifth of a second at most. By bare system calls, as tests stand in for the functions.

namespace {

class Descriptor {
public:
    Descriptor(int folder, const char* path, int flags)
        : mFd(static_cast<int>(syscall(SYS_openat, folder, path, flags | O_RDONLY | O_CLOEXEC))) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { syscall(SYS_close, mFd); }

    int Get() const { return mFd; }

private:
    int mFd;
};

bool IsRunning(int threads, const char* thread) {
    const Descriptor folder(threads, thread, O_DIRECTORY);
    const Descriptor file(folder.Get(), "stat", 0);
    std::array<char, 256> text{};
    if (syscall(SYS_read, file.Get(), text.data(), text.size() - 1) <= 0) {
        return false;  // it has ended
    }
    const char* const name = std::strrchr(text.data(), ')');
    return name != nullptr && std::strncmp(name, ") R", 3) == 0;
}

bool IsAnotherRunning() {
    const auto own = static_cast<long>(syscall(SYS_gettid));
    const Descriptor threads(AT_FDCWD, "/proc/self/task", O_DIRECTORY);
    alignas(dirent) std::array<char, 4096> entries{};
    for (;;) {
        // Of the form that readdir(3) hands out, with 64-bit offsets.
        const long size = syscall(SYS_getdents64, threads.Get(), entries.data(), entries.size());
        if (size <= 0) {
            return false;
        }
        for (long at = 0; at < size;) {
            const auto* const entry = reinterpret_cast<const dirent*>(&entries[static_cast<std::size_t>(at)]);
            const char* const thread = entry->d_name;
            if (thread[0] != '.' && std::strtol(thread, nullptr, 10) != own &&
                IsRunning(threads.Get(), thread)) {
                return true;
            }
            at += entry->d_reclen;
        }
    }
}

void WaitForOthers() {
    const int error = errno;
    for (int i = 0; i < 200 && IsAnotherRunning(); ++i) {
        const timespec pause{0, 1000000};
        syscall(SYS_nanosleep, &pause, nullptr);
    }
    errno = error;
}

__attribute__((constructor)) void WatchForks() {
    static_cast<void>(pthread_atfork(WaitForOthers, nullptr, nullptr));
}

}  // namespace
