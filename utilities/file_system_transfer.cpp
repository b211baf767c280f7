#include <fcntl.h>
#include <limits.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <tern/foundation/log.h>
#include <tern/utilities/file_system.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <string>

#include "foundation/error_text.h"
#include "foundation/unique_fd.h"
#include "utilities/file_system_at.h"
#include "utilities/file_system_messages.h"
#include "utilities/file_system_write.h"

namespace mwl::Utilities {

using mw::tern::MakeStatusCodeFromErrno;

namespace {

/// Fixed by the interface: the decimal number, that is octal 1204 (sticky, owner writes, others read). Users
/// of a copy set its owner and rights afterwards.
constexpr mode_t COPY_MODE = 644;

/// The most that one call of sendfile(2) transfers.
constexpr std::size_t LARGEST_TRANSFER = 0x7ffff000;
constexpr std::size_t CHUNK_SIZE = 16384;

StatusCode FailedToOpen(const std::string& path, int error) {
    TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "CopyFile: Failed to open file %s, errno = %s", path.c_str(),
                   ErrorText(error));
    return MakeStatusCodeFromErrno(error);
}

StatusCode FailedToInspect(const std::string& path, int error) {
    TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "CopyFile: Information file failed for %s, errno = %s", path.c_str(),
                   ErrorText(error));
    return MakeStatusCodeFromErrno(error);
}

StatusCode FailedToCopy(int error) {
    TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "CopyFile: Failed to copy file, errno = %s", ErrorText(error));
    return MakeStatusCodeFromErrno(error);
}

/// Never waits for the other end of a FIFO. -1 with `errno` for none.
UniqueFd OpenEnd(const CopyEnd& end, int flags) {
    if (end.path.size() >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return UniqueFd();
    }
    const int links = end.isTrusted ? 0 : O_NOFOLLOW;
    return UniqueFd(openat(end.at, end.name, flags | links | O_NONBLOCK | O_CLOEXEC, COPY_MODE));
}

StatusCode OpenSource(const CopyEnd& end, UniqueFd& file, struct stat& information) {
    file = OpenEnd(end, O_RDONLY);
    if (!file) {
        return FailedToOpen(end.path, errno);
    }
    if (fstat(file.Get(), &information) != 0) {
        return FailedToInspect(end.path, errno);
    }
    if (S_ISDIR(information.st_mode)) {
        return FailedToCopy(EINVAL);
    }
    if (!S_ISREG(information.st_mode)) {
        return FailedToOpen(end.path, EINVAL);  // its size says nothing, and it may never end
    }
    return StatusCode::Ok;
}

/// As creat(2), but the destination is emptied only when it is known not to be the source itself.
StatusCode OpenDestination(const CopyEnd& end, const struct stat& source, UniqueFd& file) {
    file = OpenEnd(end, O_WRONLY | O_CREAT);
    if (!file) {
        return FailedToOpen(end.path, errno);
    }
    struct stat former {};
    if (fstat(file.Get(), &former) != 0) {
        return FailedToInspect(end.path, errno);
    }
    if (former.st_dev == source.st_dev && former.st_ino == source.st_ino) {
        return FailedToOpen(end.path, EINVAL);
    }
    if (!S_ISREG(former.st_mode)) {
        // A special file has no content to lose, and takes data as slowly as it likes.
        const bool isTaken = end.isTrusted && fcntl(file.Get(), F_SETFL, 0) == 0;
        return isTaken ? StatusCode::Ok : FailedToOpen(end.path, end.isTrusted ? errno : EINVAL);
    }
    if (former.st_size != 0 && ftruncate(file.Get(), 0) != 0) {
        return FailedToOpen(end.path, errno);
    }
    return StatusCode::Ok;
}

/// Why a file that reports no size is not empty as it seems to be, such as a file in /proc; 0 when it is
/// empty. A file that is just being written to has reported its size by now.
int FindHiddenContent(int file) {
    char byte = 0;
    const ssize_t count = read(file, &byte, 1);
    if (count == 0) {
        return 0;
    }
    struct stat now {};
    if (count < 0 || fstat(file, &now) != 0) {
        return errno;
    }
    return now.st_size == 0 ? EIO : 0;
}

/// 0 or the error number.
int TransferOnce(int from, int to, off_t size) {
    // Fixed by the interface: one call; a file that it does not take whole is a failure.
    const ssize_t copied = sendfile(to, from, nullptr, static_cast<std::size_t>(size));
    if (copied < size) {
        return copied < 0 ? errno : EIO;
    }
    return size == 0 ? FindHiddenContent(from) : 0;
}

/// To the end of the source, whatever its size says. 0 or the error number.
int TransferAll(int from, int to) {
    ssize_t count = 0;
    do {
        count = sendfile(to, from, nullptr, LARGEST_TRANSFER);
    } while (count > 0 || (count < 0 && errno == EINTR));
    if (count < 0 && errno != EINVAL && errno != ENOSYS) {
        return errno;
    }
    // For the rest that sendfile(2) cannot take, and as the proof that it took everything.
    std::array<char, CHUNK_SIZE> chunk;
    while (true) {
        count = read(from, chunk.data(), chunk.size());
        if (count == 0) {
            return 0;
        }
        if (count < 0 && errno != EINTR) {
            return errno;
        }
        if (count > 0) {
            if (const int error = WriteAll(to, chunk.data(), static_cast<std::size_t>(count)); error != 0) {
                return error;
            }
        }
    }
}

}  // namespace

StatusCode CopyFileAt(const CopyEnd& from, const CopyEnd& to, CopyAmount amount, UniqueFd& copy) {
    UniqueFd source;
    struct stat information {};
    StatusCode status = OpenSource(from, source, information);
    if (status == StatusCode::Ok) {
        status = OpenDestination(to, information, copy);
    }
    if (status != StatusCode::Ok) {
        return status;
    }
    int error = amount == CopyAmount::Whole ? TransferAll(source.Get(), copy.Get())
                                            : TransferOnce(source.Get(), copy.Get(), information.st_size);
    // Closing is the last chance of some file systems to report a failure. They report it for a second
    // descriptor as well, and the source's number is free for that.
    if (error == 0 && (dup3(copy.Get(), source.Get(), O_CLOEXEC) < 0 || close(source.Release()) != 0)) {
        error = errno;
    }
    return error == 0 ? StatusCode::Ok : FailedToCopy(error);
}

StatusCode FileSystem::CopyFile(const std::string& source, const std::string& destination) {
    UniqueFd copy;
    return CopyFileAt({AT_FDCWD, source.c_str(), source, true},
                      {AT_FDCWD, destination.c_str(), destination, true}, CopyAmount::OneTransfer, copy);
}

StatusCode FileSystem::CopyWholeFile(const std::string& source, const std::string& destination) {
    UniqueFd copy;
    const StatusCode status =
        CopyFileAt({AT_FDCWD, source.c_str(), source, true},
                   {AT_FDCWD, destination.c_str(), destination, true}, CopyAmount::Whole, copy);
    if (status != StatusCode::Ok) {
        return status;
    }
    const int error = StoreAndClose(copy);
    return error == 0 ? StatusCode::Ok : FailedToCopy(error);
}

}  // namespace mwl::Utilities
