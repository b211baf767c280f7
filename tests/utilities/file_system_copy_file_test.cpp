#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tern/utilities/file_system.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "files.h"
#include "private_mounts.h"
#include "support/child.h"
#include "support/emulation.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/process_resources.h"

using mwl::StatusCode;
using mwl::Utilities::FileSystem;
using tern::test::ChildResult;
using tern::test::ContentOf;
using tern::test::Error;
using tern::test::Exists;
using tern::test::FaultScope;
using tern::test::FolderOn;
using tern::test::Inspect;
using tern::test::LogCapture;
using tern::test::MakeFile;
using tern::test::ModeOf;
using tern::test::RunInChild;
using testing::ElementsAre;
using testing::IsEmpty;

TERN_INTERPOSE_TIME(int, fstat64, __fstat64_time64, (int fd, struct stat* information), (fd, information))
TERN_INTERPOSE(int, close, (int fd), (fd))
TERN_INTERPOSE(int, fsync, (int fd), (fd))
TERN_INTERPOSE(int, ftruncate64, (int fd, off_t size), (fd, size))
TERN_INTERPOSE(ssize_t, sendfile64, (int to, int from, off_t* offset, size_t count),
               (to, from, offset, count))

namespace {

const std::string LOGGER = "mwl::Utilities::FileSystem";
const std::string NO_ENTRY = "No such file or directory";

/// The content of a copy, which at first its owner may not read.
std::string ContentOfCopy(const std::string& path) {
    EXPECT_EQ(chmod(path.c_str(), 0600), 0);
    return ContentOf(path);
}

/// On the file system of the parameter.
class FileSystemCopyFile : public testing::TestWithParam<const char*> {
protected:
    FileSystemCopyFile() {
        EXPECT_EQ(mkdir((folder / "from").c_str(), 0755), 0);
        EXPECT_EQ(mkdir((folder / "to").c_str(), 0755), 0);
    }

    FolderOn folder{GetParam()};
    const std::string from = folder / "from/";
    const std::string to = folder / "to/";
    const FaultScope<int(int, struct stat*)> fstatScope{fault_fstat64};
    const FaultScope<int(int, off_t)> ftruncateScope{fault_ftruncate64};
    const FaultScope<ssize_t(int, int, off_t*, size_t)> sendfileScope{fault_sendfile64};
};

INSTANTIATE_TEST_SUITE_P(OnDiskAndInMemory, FileSystemCopyFile, testing::Values("/tmp", "/dev/shm"));

}  // namespace

TEST_P(FileSystemCopyFile, AFileIsCopiedWhole) {
    const LogCapture log;
    for (const std::size_t size : {0U, 1U, 4096U, 3000001U}) {
        std::string content;
        while (content.size() < size) {
            content += static_cast<char>(content.size() * 7 / 3);
        }
        MakeFile(from + "file", content);
        EXPECT_EQ(FileSystem::CopyFile(from + "file", to + "file" + std::to_string(size)), StatusCode::Ok);
        EXPECT_TRUE(ContentOfCopy(to + "file" + std::to_string(size)) == content) << size;
    }
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_P(FileSystemCopyFile, ANewCopyHasModeDecimal644LessTheUmask) {
    MakeFile(from + "file", "content");
    ASSERT_EQ(chmod((from + "file").c_str(), 0777), 0);
    const LogCapture log;
    for (const mode_t mask : {0000U, 0002U, 0022U, 0077U, 0777U}) {
        const std::string copy = to + std::to_string(mask);
        const mode_t former = umask(mask);
        EXPECT_EQ(FileSystem::CopyFile(from + "file", copy), StatusCode::Ok);
        umask(former);
        EXPECT_EQ(ModeOf(copy), 01204U & ~mask) << mask;
    }
}

TEST_P(FileSystemCopyFile, AnExistingDestinationIsReplacedAndKeepsItsMode) {
    const LogCapture log;
    MakeFile(from + "file", "new");
    MakeFile(to + "file", "much longer than the new content");
    ASSERT_EQ(chmod((to + "file").c_str(), 0640), 0);
    const ino_t inode = Inspect(to + "file").st_ino;
    EXPECT_EQ(FileSystem::CopyFile(from + "file", to + "file"), StatusCode::Ok);
    EXPECT_EQ(ContentOf(to + "file"), "new");
    EXPECT_EQ(ModeOf(to + "file"), 0640U);
    EXPECT_EQ(Inspect(to + "file").st_ino, inode);
}

// What is no regular file has no content to lose: it is written to as it is.
TEST_P(FileSystemCopyFile, ADeviceMayBeTheDestination) {
    MakeFile(from + "file", "content");
    const LogCapture log;
    fault_ftruncate64.Fail(-1, EINVAL);
    EXPECT_EQ(FileSystem::CopyFile(from + "file", "/dev/null"), StatusCode::Ok);
    EXPECT_EQ(fault_ftruncate64.Calls(), 0);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_P(FileSystemCopyFile, AFileCopiedOntoItselfStaysWhole) {
    MakeFile(from + "file", "precious");
    ASSERT_EQ(symlink("file", (from + "link").c_str()), 0);
    ASSERT_EQ(link((from + "file").c_str(), (from + "hard").c_str()), 0);
    for (const char* name : {"file", "link", "hard"}) {
        const LogCapture log;
        EXPECT_EQ(FileSystem::CopyFile(from + "file", from + name), StatusCode::InvalidArgument) << name;
        EXPECT_THAT(log.Entries(), ElementsAre(Error(LOGGER, "CopyFile: Failed to open file " + from + name +
                                                                 ", errno = Invalid argument")));
        EXPECT_EQ(ContentOf(from + "file"), "precious") << name;
    }
}

TEST_P(FileSystemCopyFile, ASourceThatCannotBeOpenedIsNamedAndNothingIsMade) {
    const LogCapture log;
    EXPECT_EQ(FileSystem::CopyFile(from + "none", to + "copy"), StatusCode::NotFound);
    EXPECT_FALSE(Exists(to + "copy"));
    EXPECT_THAT(log.Entries(), ElementsAre(Error(LOGGER, "CopyFile: Failed to open file " + from +
                                                             "none, errno = " + NO_ENTRY)));
}

TEST_P(FileSystemCopyFile, ASourceThatCannotBeInspectedIsNamedAndNothingIsMade) {
    MakeFile(from + "file", "content");
    const LogCapture log;
    fault_fstat64.Fail(-1, EOVERFLOW);
    EXPECT_EQ(FileSystem::CopyFile(from + "file", to + "copy"), StatusCode::Failure);
    EXPECT_FALSE(Exists(to + "copy"));
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error(LOGGER, "CopyFile: Information file failed for " + from +
                                              "file, errno = Value too large for defined data type")));
}

TEST_P(FileSystemCopyFile, ADestinationThatCannotBeOpenedIsNamed) {
    MakeFile(from + "file", "content");
    const LogCapture log;
    EXPECT_EQ(FileSystem::CopyFile(from + "file", folder.Path()), StatusCode::IoError);
    EXPECT_EQ(FileSystem::CopyFile(from + "file", to + "none/copy"), StatusCode::NotFound);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(
            Error(LOGGER, "CopyFile: Failed to open file " + folder.Path() + ", errno = Is a directory"),
            Error(LOGGER, "CopyFile: Failed to open file " + to + "none/copy, errno = " + NO_ENTRY)));
}

TEST_P(FileSystemCopyFile, ADestinationThatCannotBeInspectedOrEmptiedIsNamed) {
    MakeFile(from + "file", "content");
    MakeFile(to + "copy", "former");
    const LogCapture log;
    fault_fstat64.Fail(-1, EIO, 1, 1);
    EXPECT_EQ(FileSystem::CopyFile(from + "file", to + "copy"), StatusCode::IoError);
    fault_ftruncate64.Fail(-1, EPERM);
    EXPECT_EQ(FileSystem::CopyFile(from + "file", to + "copy"), StatusCode::NotPermitted);
    EXPECT_EQ(ContentOf(to + "copy"), "former");
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(
            Error(LOGGER, "CopyFile: Information file failed for " + to + "copy, errno = Input/output error"),
            Error(LOGGER, "CopyFile: Failed to open file " + to + "copy, errno = Operation not permitted")));
}

TEST_P(FileSystemCopyFile, AFailedTransferGivesTheStatusOfErrno) {
    MakeFile(from + "file", "content");
    const LogCapture log;
    fault_sendfile64.Fail(-1, ENOSPC);
    EXPECT_EQ(FileSystem::CopyFile(from + "file", to + "copy"), StatusCode::IoError);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error(LOGGER, "CopyFile: Failed to copy file, errno = No space left on device")));
}

// errno says nothing after a short transfer; reported by it, a truncated copy once passed for a good one.
TEST_P(FileSystemCopyFile, AShortTransferIsAnInputOutputErrorAndIsNotRepeated) {
    MakeFile(from + "file", "content");
    const LogCapture log;
    fault_sendfile64.Replace([](int target, int source, off_t* offset, size_t) {
        const ssize_t copied = fault_sendfile64.Real(target, source, offset, 3);
        errno = 0;
        return copied;
    });
    EXPECT_EQ(FileSystem::CopyFile(from + "file", to + "copy"), StatusCode::IoError);
    EXPECT_EQ(fault_sendfile64.Calls(), 1);
    EXPECT_EQ(ContentOfCopy(to + "copy"), "con");
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error(LOGGER, "CopyFile: Failed to copy file, errno = Input/output error")));
}

// The copy was empty, and told as a whole one.
TEST_P(FileSystemCopyFile, AFileThatTellsNoSizeIsNotTakenForAnEmptyOne) {
    SKIP_WHERE_EMULATED("the name in /proc is the emulator's");
    const LogCapture log;
    EXPECT_EQ(FileSystem::CopyFile("/proc/self/status", to + "copy"), StatusCode::IoError);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error(LOGGER, "CopyFile: Failed to copy file, errno = Input/output error")));
    EXPECT_EQ(FileSystem::CopyWholeFile("/proc/self/status", to + "copy"), StatusCode::Ok);
    EXPECT_NE(ContentOfCopy(to + "copy").find("utilities-file"), std::string::npos) << "its own name";
}

TEST_P(FileSystemCopyFile, AFileThatBeginsToBeWrittenIsCopiedAsItWas) {
    MakeFile(from + "file");
    const LogCapture log;
    fault_sendfile64.Replace([&](int target, int source, off_t* offset, size_t count) {
        const ssize_t copied = fault_sendfile64.Real(target, source, offset, count);
        MakeFile(from + "file", "begun");
        return copied;
    });
    EXPECT_EQ(FileSystem::CopyFile(from + "file", to + "copy"), StatusCode::Ok);
    EXPECT_EQ(ContentOfCopy(to + "copy"), "");
}

// Opened as a file is, it blocked for ever.
TEST_P(FileSystemCopyFile, AFifoIsNotWaitedFor) {
    ASSERT_EQ(mkfifo((from + "fifo").c_str(), 0600), 0);
    MakeFile(from + "file", "content");
    const ChildResult child = RunInChild([&] {
        return FileSystem::CopyFile(from + "fifo", to + "copy") == StatusCode::InvalidArgument &&
                       FileSystem::CopyWholeFile(from + "fifo", to + "copy") == StatusCode::InvalidArgument &&
                       FileSystem::CopyFile(from + "file", from + "fifo") == StatusCode::InvalidArgument
                   ? 0
                   : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    EXPECT_FALSE(Exists(to + "copy"));
    const std::string message = "CopyFile: Failed to open file " + from + "fifo, errno = ";
    EXPECT_THAT(child.log, ElementsAre(Error(LOGGER, message + "Invalid argument"),
                                       Error(LOGGER, message + "Invalid argument"),
                                       Error(LOGGER, message + "No such device or address")));
}

TEST_P(FileSystemCopyFile, ADeviceIsNoSourceOfACopy) {
    const LogCapture log;
    EXPECT_EQ(FileSystem::CopyFile("/dev/zero", to + "copy"), StatusCode::InvalidArgument);
    EXPECT_EQ(FileSystem::CopyWholeFile("/dev/zero", to + "copy"), StatusCode::InvalidArgument);
    EXPECT_FALSE(Exists(to + "copy"));
}

TEST_P(FileSystemCopyFile, AFifoThatIsReadMayBeTheDestination) {
    ASSERT_EQ(mkfifo((to + "fifo").c_str(), 0600), 0);
    MakeFile(from + "file", std::string(300000, 'x'));
    std::string received;
    std::thread reader([&] { received = ContentOf(to + "fifo"); });
    const int kept = open((to + "fifo").c_str(), O_WRONLY | O_CLOEXEC);  // so that there is a reader by now
    const LogCapture log;
    EXPECT_EQ(FileSystem::CopyWholeFile(from + "file", to + "fifo"), StatusCode::Ok);
    close(kept);
    reader.join();
    EXPECT_EQ(received.size(), 300000U);
}

TEST_P(FileSystemCopyFile, AFailureThatClosingTellsIsAFailureOfTheCopy) {
    MakeFile(from + "file", "content");
    const LogCapture log;
    const FaultScope scope(fault_close);
    const auto fail = [](int fd) {
        fault_close.Real(fd);
        errno = ENOSPC;
        return -1;
    };
    fault_close.Replace(fail);
    EXPECT_EQ(FileSystem::CopyFile(from + "file", to + "copy"), StatusCode::IoError);
    fault_close.Replace(fail, 1, 1);
    EXPECT_EQ(FileSystem::CopyWholeFile(from + "file", to + "copy"), StatusCode::IoError);
    const auto message = Error(LOGGER, "CopyFile: Failed to copy file, errno = No space left on device");
    EXPECT_THAT(log.Entries(), ElementsAre(message, message));
}

TEST_P(FileSystemCopyFile, TheWholeFileIsCopiedHoweverLittleATransferTakes) {
    const std::string content = "a content of many transfers";
    MakeFile(from + "file", content);
    const LogCapture log;
    const auto littleAtATime = [](int target, int source, off_t* offset, size_t count) {
        return fault_sendfile64.Real(target, source, offset, std::min<size_t>(count, 5));
    };
    fault_sendfile64.Replace(littleAtATime, 1000);
    EXPECT_EQ(FileSystem::CopyFile(from + "file", to + "copy"), StatusCode::IoError);
    fault_sendfile64.Replace(littleAtATime, 1000);
    EXPECT_EQ(FileSystem::CopyWholeFile(from + "file", to + "copy"), StatusCode::Ok);
    EXPECT_EQ(ContentOfCopy(to + "copy"), content);

    fault_sendfile64.Fail(-1, EINTR, 3);
    EXPECT_EQ(FileSystem::CopyWholeFile(from + "file", to + "interrupted"), StatusCode::Ok);
    EXPECT_EQ(ContentOfCopy(to + "interrupted"), content);
    fault_sendfile64.Fail(-1, EINVAL);  // of a file system that cannot
    EXPECT_EQ(FileSystem::CopyWholeFile(from + "file", to + "read"), StatusCode::Ok);
    EXPECT_EQ(ContentOfCopy(to + "read"), content);
    EXPECT_EQ(ModeOf(to + "read"), 0600U);
}

TEST_P(FileSystemCopyFile, AWholeCopyFailsWithTheStatusOfErrno) {
    MakeFile(from + "file", "content");
    const FaultScope scope(fault_fsync);
    const LogCapture log;
    fault_sendfile64.Fail(-1, ENOSPC);
    EXPECT_EQ(FileSystem::CopyWholeFile(from + "file", to + "copy"), StatusCode::IoError);
    fault_fsync.Fail(-1, EIO);
    EXPECT_EQ(FileSystem::CopyWholeFile(from + "file", to + "copy"), StatusCode::IoError);
    EXPECT_EQ(FileSystem::CopyWholeFile(from + "none", to + "copy"), StatusCode::NotFound);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Error(LOGGER, "CopyFile: Failed to copy file, errno = No space left on device"),
                    Error(LOGGER, "CopyFile: Failed to copy file, errno = Input/output error"),
                    Error(LOGGER, "CopyFile: Failed to open file " + from + "none, errno = " + NO_ENTRY)));
}

TEST_P(FileSystemCopyFile, AFullDiskIsTold) {
    if (!tern::test::CanMountPrivately()) {
        GTEST_SKIP() << "a mount namespace is not permitted here";
    }
    MakeFile(from + "file", std::string(200 * 1024, 'x'));
    const ChildResult child = RunInChild([&] {
        return tern::test::EnterPrivateMounts() && tern::test::CoverWithSmallDisk(to, 64) &&
                       FileSystem::CopyFile(from + "file", to + "copy") == StatusCode::IoError &&
                       FileSystem::CopyWholeFile(from + "file", to + "copy") == StatusCode::IoError
                   ? 0
                   : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
}

TEST_P(FileSystemCopyFile, AFolderIsNoSourceOfACopy) {
    MakeFile(to + "copy", "former");
    const LogCapture log;
    EXPECT_EQ(FileSystem::CopyFile(from, to + "copy"), StatusCode::InvalidArgument);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error(LOGGER, "CopyFile: Failed to copy file, errno = Invalid argument")));
    EXPECT_EQ(ContentOf(to + "copy"), "former");
}

TEST_P(FileSystemCopyFile, DescriptorsCloseOnExecutionAndOnEveryPath) {
    MakeFile(from + "file", "content");
    const LogCapture log;
    const std::size_t before = tern::test::CountDescriptors();
    int flags = 0;
    fault_sendfile64.Replace([&](int target, int source, off_t* offset, size_t count) {
        flags = fcntl(target, F_GETFD) & fcntl(source, F_GETFD);
        return fault_sendfile64.Real(target, source, offset, count);
    });
    EXPECT_EQ(FileSystem::CopyFile(from + "file", to + "copy"), StatusCode::Ok);
    EXPECT_EQ(flags & FD_CLOEXEC, FD_CLOEXEC);
    fault_sendfile64.Fail(-1, EIO);
    EXPECT_EQ(FileSystem::CopyFile(from + "file", to + "copy"), StatusCode::IoError);
    fault_fstat64.Fail(-1, EIO);
    EXPECT_EQ(FileSystem::CopyFile(from + "file", to + "copy"), StatusCode::IoError);
    fault_fstat64.Fail(-1, EIO, 1, 1);
    EXPECT_EQ(FileSystem::CopyFile(from + "file", to + "copy"), StatusCode::IoError);
    EXPECT_EQ(FileSystem::CopyFile(from + "file", folder.Path()), StatusCode::IoError);
    EXPECT_EQ(tern::test::CountDescriptors(), before);
}
