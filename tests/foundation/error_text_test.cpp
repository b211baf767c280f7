#include "foundation/error_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <thread>

#include "support/interpose.h"

using mwl::ErrorText;
using tern::test::FaultScope;

TERN_INTERPOSE(char*, strerror_r, (int error, char* buffer, size_t size), (error, buffer, size))

TEST(ErrorText, TellsKnownNumbersAsTheCLibraryDoes) {
    EXPECT_STREQ(ErrorText(0), "Success");
    EXPECT_STREQ(ErrorText(ENOENT), "No such file or directory");
    EXPECT_STREQ(ErrorText(EINVAL), "Invalid argument");
    for (int error = 1; error < 134; ++error) {
        EXPECT_EQ(ErrorText(error), std::string(strerror(error))) << error;
    }
}

TEST(ErrorText, TellsUnknownNumbersWithTheNumber) {
    for (const int error : {4095, 100000, -1, INT_MAX, INT_MIN}) {
        EXPECT_EQ(ErrorText(error), "Unknown error " + std::to_string(error));
    }
}

TEST(ErrorText, TextOfAKnownNumberStays) {
    const char* const text = ErrorText(ENOENT);
    ErrorText(EINVAL);
    ErrorText(100000);
    EXPECT_STREQ(text, "No such file or directory");
}

TEST(ErrorText, PreservesErrno) {
    for (const int error : {0, ENOENT, 100000, -1}) {
        errno = EXDEV;
        ErrorText(error);
        EXPECT_EQ(errno, EXDEV) << error;
    }
    // Whatever the C library does to it.
    const FaultScope scope(fault_strerror_r);
    fault_strerror_r.Replace([](int, char* buffer, size_t size) {
        errno = ERANGE;
        strncpy(buffer, "in the buffer", size);
        return buffer;
    });
    errno = EXDEV;
    const char* const text = ErrorText(100000);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_STREQ(text, "in the buffer");
}

TEST(ErrorText, ThreadsDoNotOverwriteEachOthersUnknownNumbers) {
    const char* const mine = ErrorText(100001);
    std::thread([mine] {
        const char* const theirs = ErrorText(100002);
        EXPECT_NE(theirs, mine);
        EXPECT_STREQ(theirs, "Unknown error 100002");
    }).join();
    EXPECT_STREQ(mine, "Unknown error 100001");
}
