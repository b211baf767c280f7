#pragma once

#include <unistd.h>

#include <utility>

namespace mwl {

/// Owner of one file descriptor; -1 is none. Closes it when destroyed. One thread at a time.
class UniqueFd {
public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int fd) noexcept : mFd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : mFd(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        Reset(other.Release());
        return *this;
    }
    ~UniqueFd() { Reset(); }

    int Get() const noexcept { return mFd; }
    explicit operator bool() const noexcept { return mFd >= 0; }
    int Release() noexcept { return std::exchange(mFd, -1); }
    /// close(2) is not repeated after EINTR: on Linux the descriptor is gone all the same.
    void Reset(int fd = -1) noexcept {
        const int old = std::exchange(mFd, fd);
        if (old >= 0) {
            static_cast<void>(close(old));
        }
    }

private:
    int mFd = -1;
};

}  // namespace mwl
