#include <gtest/gtest.h>
#include <tern-foundation/status_code.h>
#include <tern/foundation/status_code.h>

#include <cerrno>
#include <climits>
#include <map>

using mw::tern::StatusCode;

namespace {

struct Row {
    StatusCode status;
    unsigned int number;
    const char* name;
};

constexpr Row ROWS[] = {{StatusCode::Ok, 0, "Ok"},
                        {StatusCode::Failure, 1, "Failure"},
                        {StatusCode::AccessDenied, 3, "AccessDenied"},
                        {StatusCode::StreamError, 9, "StreamError"},
                        {StatusCode::Busy, 11, "Busy"},
                        {StatusCode::Stopping, 14, "Stopping"},
                        {StatusCode::Deadlock, 17, "Deadlock"},
                        {StatusCode::AlreadyExists, 20, "AlreadyExists"},
                        {StatusCode::Interrupted, 27, "Interrupted"},
                        {StatusCode::InvalidArgument, 28, "InvalidArgument"},
                        {StatusCode::IoError, 29, "IoError"},
                        {StatusCode::KeyNotFound, 42, "KeyNotFound"},
                        {StatusCode::NotFound, 44, "NotFound"},
                        {StatusCode::ResourceUnavailable, 48, "ResourceUnavailable"},
                        {StatusCode::OutOfMemory, 51, "OutOfMemory"},
                        {StatusCode::OpenFailed, 52, "OpenFailed"},
                        {StatusCode::NotSupported, 60, "NotSupported"},
                        {StatusCode::NotInitialized, 62, "NotInitialized"},
                        {StatusCode::NotPermitted, 66, "NotPermitted"},
                        {StatusCode::Timeout, 76, "Timeout"}};

const std::map<int, StatusCode> ERRNO_STATUS = {{EPERM, StatusCode::NotPermitted},
                                                {ENOENT, StatusCode::NotFound},
                                                {ENOTDIR, StatusCode::NotFound},
                                                {EINTR, StatusCode::Interrupted},
                                                {EIO, StatusCode::IoError},
                                                {EPIPE, StatusCode::IoError},
                                                {ENOSPC, StatusCode::IoError},
                                                {EFBIG, StatusCode::IoError},
                                                {EISDIR, StatusCode::IoError},
                                                {EAGAIN, StatusCode::ResourceUnavailable},
                                                {EMFILE, StatusCode::ResourceUnavailable},
                                                {ENFILE, StatusCode::ResourceUnavailable},
                                                {ENOMEM, StatusCode::OutOfMemory},
                                                {EACCES, StatusCode::AccessDenied},
                                                {EROFS, StatusCode::AccessDenied},
                                                {EBUSY, StatusCode::Busy},
                                                {EINPROGRESS, StatusCode::Busy},
                                                {EALREADY, StatusCode::Busy},
                                                {EEXIST, StatusCode::AlreadyExists},
                                                {EISCONN, StatusCode::AlreadyExists},
                                                {EINVAL, StatusCode::InvalidArgument},
                                                {EBADF, StatusCode::InvalidArgument},
                                                {ENXIO, StatusCode::InvalidArgument},
                                                {EDEADLK, StatusCode::Deadlock},
                                                {ENOSYS, StatusCode::NotSupported},
                                                {EOPNOTSUPP, StatusCode::NotSupported},
                                                {ETIMEDOUT, StatusCode::Timeout}};

StatusCode Expected(int errnum) {
    const auto found = ERRNO_STATUS.find(errnum);
    return found == ERRNO_STATUS.end() ? StatusCode::Failure : found->second;
}

}  // namespace

TEST(StatusCode, NumbersAndNamesAreFixed) {
    for (const Row& row : ROWS) {
        EXPECT_EQ(static_cast<unsigned int>(row.status), row.number) << row.name;
        EXPECT_EQ(mw::tern::ConvertStatusCodeToString(row.status), row.name);
    }
    static_assert(sizeof(StatusCode) == sizeof(unsigned int));
}

TEST(StatusCode, UnlistedValuesAreNamedByNumber) {
    EXPECT_EQ(mw::tern::ConvertStatusCodeToString(static_cast<StatusCode>(2)), "StatusCode(2)");
    EXPECT_EQ(mw::tern::ConvertStatusCodeToString(static_cast<StatusCode>(UINT_MAX)),
              "StatusCode(4294967295)");
}

TEST(StatusCode, EveryErrorNumberMapsAsTabled) {
    for (int errnum = -200; errnum <= 200; ++errnum) {
        EXPECT_EQ(mw::tern::MakeStatusCodeFromErrno(errnum), Expected(errnum)) << errnum;
    }
    EXPECT_EQ(mw::tern::MakeStatusCodeFromErrno(INT_MIN), StatusCode::Failure);
    EXPECT_EQ(mw::tern::MakeStatusCodeFromErrno(INT_MAX), StatusCode::Failure);
}

TEST(StatusCode, ReturnCodesOfZeroAndAboveAreOk) {
    for (const int rc : {0, 1, 2, 115, INT_MAX}) {
        EXPECT_EQ(mw::tern::MakeStatusCodeFromReturnCode(rc), StatusCode::Ok) << rc;
    }
}

TEST(StatusCode, NegativeReturnCodesMapAsTheirErrorNumber) {
    for (int errnum = 1; errnum <= 200; ++errnum) {
        EXPECT_EQ(mw::tern::MakeStatusCodeFromReturnCode(-errnum), Expected(errnum)) << errnum;
    }
    EXPECT_EQ(mw::tern::MakeStatusCodeFromReturnCode(INT_MIN), StatusCode::Failure);
}

TEST(StatusCode, IsTheSameTypeInBothNamespaces) {
    EXPECT_TRUE((std::is_same_v<mwl::StatusCode, mw::tern::StatusCode>));
}
