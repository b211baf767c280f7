#pragma once

#include <string>

#define TERN_FOUNDATION_API __attribute__((visibility("default")))

namespace mw::tern {

/// Result of almost every operation of the platform. The numbers are fixed: they appear in messages and cross
/// library boundaries. A plain enumeration, so values outside this list may travel through it unchanged.
enum StatusCode : unsigned int {
    Ok = 0,
    Failure = 1,           ///< generic failure, and what every mapping gives for a number it does not know
    AccessDenied = 3,      ///< EACCES, EROFS; wrong password on an archive
    StreamError = 9,       ///< output stream of a child process could not be opened
    Busy = 11,             ///< EBUSY, EINPROGRESS, EALREADY; a component started twice
    Stopping = 14,         ///< the owner of the calling thread is stopping: leave the loop
    Deadlock = 17,         ///< EDEADLK
    AlreadyExists = 20,    ///< EEXIST, EISCONN; an existing item was deliberately not overwritten
    Interrupted = 27,      ///< EINTR, or a stop request arrived while waiting
    InvalidArgument = 28,  ///< EINVAL, EBADF, ENXIO; unknown handle; malformed text
    IoError = 29,          ///< EIO, EPIPE, ENOSPC, EFBIG, EISDIR
    KeyNotFound = 42,      ///< key absent from a keyed list, or holding a value of another type
    NotFound = 44,         ///< ENOENT, ENOTDIR
    ResourceUnavailable = 48,  ///< EAGAIN, EMFILE, ENFILE; a thread object could not be created
    OutOfMemory = 51,          ///< ENOMEM
    OpenFailed = 52,           ///< a file could not be opened for reading
    NotSupported = 60,         ///< ENOSYS, EOPNOTSUPP; compression or encryption method not supported
    NotInitialized = 62,       ///< object used before its initialisation succeeded
    NotPermitted = 66,         ///< EPERM; a required password is missing
    Timeout = 76               ///< ETIMEDOUT
};

/// Status of an error number as found in `errno` (see errno(3)). Numbers that name no status of the table
/// above, 0 and negatives included, give Failure. Thread-safe.
TERN_FOUNDATION_API StatusCode MakeStatusCodeFromErrno(int errnum);

/// Status of a return code in the sd-bus convention: 0 and above is Ok, below is a negated error number.
/// INT_MIN, which has no positive counterpart, gives Failure. Thread-safe.
TERN_FOUNDATION_API StatusCode MakeStatusCodeFromReturnCode(int rc);

/// Name of the enumerator ("KeyNotFound"); "StatusCode(N)" for a value outside the list. Thread-safe.
TERN_FOUNDATION_API std::string ConvertStatusCodeToString(StatusCode status);

}  // namespace mw::tern

namespace mwl {

using mw::tern::StatusCode;

}  // namespace mwl
