#include <tern-foundation/status_code.h>

#include <cerrno>
#include <climits>

namespace mw::tern {

StatusCode MakeStatusCodeFromErrno(int errnum) {
    switch (errnum) {
        case EPERM:
            return StatusCode::NotPermitted;
        case ENOENT:
        case ENOTDIR:
            return StatusCode::NotFound;
        case EINTR:
            return StatusCode::Interrupted;
        case EIO:
        case EPIPE:
        case ENOSPC:
        case EFBIG:
        case EISDIR:
            return StatusCode::IoError;
        case EAGAIN:
        case EMFILE:
        case ENFILE:
            return StatusCode::ResourceUnavailable;
        case ENOMEM:
            return StatusCode::OutOfMemory;
        case EACCES:
        case EROFS:
            return StatusCode::AccessDenied;
        case EBUSY:
        case EINPROGRESS:
        case EALREADY:
            return StatusCode::Busy;
        case EEXIST:
        case EISCONN:
            return StatusCode::AlreadyExists;
        case EINVAL:
        case EBADF:
        case ENXIO:
            return StatusCode::InvalidArgument;
        case EDEADLK:
            return StatusCode::Deadlock;
        case ENOSYS:
        case EOPNOTSUPP:
            return StatusCode::NotSupported;
        case ETIMEDOUT:
            return StatusCode::Timeout;
        default:
            return StatusCode::Failure;
    }
}

StatusCode MakeStatusCodeFromReturnCode(int rc) {
    if (rc >= 0) {
        return StatusCode::Ok;
    }
    return rc == INT_MIN ? StatusCode::Failure : MakeStatusCodeFromErrno(-rc);
}

std::string ConvertStatusCodeToString(StatusCode status) {
    switch (status) {
        case StatusCode::Ok:
            return "Ok";
        case StatusCode::Failure:
            return "Failure";
        case StatusCode::AccessDenied:
            return "AccessDenied";
        case StatusCode::StreamError:
            return "StreamError";
        case StatusCode::Busy:
            return "Busy";
        case StatusCode::Stopping:
            return "Stopping";
        case StatusCode::Deadlock:
            return "Deadlock";
        case StatusCode::AlreadyExists:
            return "AlreadyExists";
        case StatusCode::Interrupted:
            return "Interrupted";
        case StatusCode::InvalidArgument:
            return "InvalidArgument";
        case StatusCode::IoError:
            return "IoError";
        case StatusCode::KeyNotFound:
            return "KeyNotFound";
        case StatusCode::NotFound:
            return "NotFound";
        case StatusCode::ResourceUnavailable:
            return "ResourceUnavailable";
        case StatusCode::OutOfMemory:
            return "OutOfMemory";
        case StatusCode::OpenFailed:
            return "OpenFailed";
        case StatusCode::NotSupported:
            return "NotSupported";
        case StatusCode::NotInitialized:
            return "NotInitialized";
        case StatusCode::NotPermitted:
            return "NotPermitted";
        case StatusCode::Timeout:
            return "Timeout";
    }
    return "StatusCode(" + std::to_string(static_cast<unsigned int>(status)) + ")";
}

}  // namespace mw::tern
