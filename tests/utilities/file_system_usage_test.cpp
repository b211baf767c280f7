#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tern/utilities/file_system.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "files.h"
#include "support/child.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/process_resources.h"

using mwl::StatusCode;
using mwl::Utilities::FileSystem;
using tern::test::ChildResult;
using tern::test::Error;
using tern::test::FaultScope;
using tern::test::FolderOn;
using tern::test::Inspect;
using tern::test::LogCapture;
using tern::test::MakeFile;
using tern::test::RunInChild;
using testing::ElementsAre;
using testing::IsEmpty;

// The library's own look at an entry; the one of std::filesystem goes through another name.
TERN_INTERPOSE_TIME(int, stat64, __stat64_time64, (const char* path, struct stat* information),
                    (path, information))
// What it looks at the entries of a folder with, and opens folders.
TERN_INTERPOSE_TIME(int, fstatat64, __fstatat64_time64,
                    (int folder, const char* name, struct stat* information, int flags),
                    (folder, name, information, flags))
TERN_INTERPOSE(int, openat64, (int folder, const char* name, int flags, mode_t mode),
               (folder, name, flags, mode))
TERN_INTERPOSE(struct dirent*, readdir64, (DIR * stream), (stream))

namespace {

const std::string LOGGER = "mwl::Utilities::FileSystem";
constexpr uid_t NOBODY = 65534;
constexpr unsigned int UNTOUCHED = 12345;

/// Answers stat with these sizes for every existing path.
void PretendSize(off_t size, blksize_t block) {
    fault_stat64.Replace(
        [=](const char* path, struct stat* information) {
            const int result = fault_stat64.Real(path, information);
            information->st_size = size;
            information->st_blksize = block;
            return result;
        },
        1000);
}

unsigned int UsageOf(const std::string& path) {
    unsigned int usage = UNTOUCHED;
    EXPECT_EQ(FileSystem::GetDiskUsage(path, usage), StatusCode::Ok) << path;
    return usage;
}

std::string FailedAt(const std::string& path, const std::string& status) {
    return "[GetRecursiveDiskUsage] Failed to get disk usage for entry '" + path + "', status = " + status;
}

class FileSystemUsage : public testing::TestWithParam<const char*> {
protected:
    FolderOn folder{GetParam()};
    const FaultScope<int(const char*, struct stat*)> statScope{fault_stat64};
    const FaultScope<int(int, const char*, struct stat*, int)> fstatatScope{fault_fstatat64};
    const LogCapture log;
    unsigned int usage = UNTOUCHED;
};

INSTANTIATE_TEST_SUITE_P(OnDiskAndInMemory, FileSystemUsage, testing::Values("/tmp", "/dev/shm"));

}  // namespace

TEST_P(FileSystemUsage, ASizeIsRoundedUpToWholeBlocks) {
    const auto block = static_cast<std::size_t>(Inspect(folder.Path()).st_blksize);
    ASSERT_GE(block, 1024U);
    const auto kib = static_cast<unsigned int>(block / 1024);
    const std::vector<std::pair<std::size_t, unsigned int>> table = {
        {0, 0}, {1, kib}, {block - 1, kib}, {block, kib}, {block + 1, 2 * kib}, {10 * block, 10 * kib}};
    for (const auto& [size, expected] : table) {
        MakeFile(folder / "file", std::string(size, 'x'));
        EXPECT_EQ(UsageOf(folder / "file"), expected) << size;
    }
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_P(FileSystemUsage, OneByteInBlocksOf4096BytesIs4KiB) {
    MakeFile(folder / "file", "x");
    PretendSize(1, 4096);
    EXPECT_EQ(UsageOf(folder / "file"), 4U);
}

TEST_P(FileSystemUsage, BlocksSmallerThanAKiBAreCutToWholeKiB) {
    MakeFile(folder / "file", "x");
    PretendSize(1, 512);
    EXPECT_EQ(UsageOf(folder / "file"), 0U);
    PretendSize(1025, 512);
    EXPECT_EQ(UsageOf(folder / "file"), 1U);
}

TEST_P(FileSystemUsage, SizesAreComputedIn64BitsAndStoredIn32) {
    MakeFile(folder / "file", "x");
    PretendSize((off_t{1} << 42) - 1024, 4096);  // the largest that fits, and one block more
    EXPECT_EQ(UsageOf(folder / "file"), 0U);
    PretendSize((off_t{1} << 42) - 4096, 4096);
    EXPECT_EQ(UsageOf(folder / "file"), 4294967292U);
    PretendSize(off_t{5} << 30, 4096);
    EXPECT_EQ(UsageOf(folder / "file"), 5U << 20U);
}

TEST_P(FileSystemUsage, ABlockSizeOfZeroDoesNotDivide) {
    MakeFile(folder / "file", "x");
    PretendSize(2048, 0);
    EXPECT_EQ(UsageOf(folder / "file"), 2U);
}

TEST_P(FileSystemUsage, ASparseFileCountsByItsLength) {
    MakeFile(folder / "file");
    ASSERT_EQ(truncate((folder / "file").c_str(), 1 << 20), 0);
    EXPECT_EQ(UsageOf(folder / "file"), 1024U);
}

TEST_P(FileSystemUsage, AFolderCountsByItsOwnEntryAndALinkByItsTarget) {
    MakeFile(folder / "file", std::string(100000, 'x'));
    ASSERT_EQ(symlink("file", (folder / "link").c_str()), 0);
    const struct stat information = Inspect(folder.Path());
    const auto blocks = (information.st_size + information.st_blksize - 1) / information.st_blksize;
    EXPECT_EQ(UsageOf(folder.Path()), static_cast<unsigned int>(blocks * information.st_blksize / 1024));
    EXPECT_EQ(UsageOf(folder / "link"), UsageOf(folder / "file"));
}

TEST_P(FileSystemUsage, WhatIsMissingOrOutOfReachIsNotFoundWithoutAMessage) {
    MakeFile(folder / "file");
    ASSERT_EQ(symlink("nowhere", (folder / "dangling").c_str()), 0);
    ASSERT_EQ(symlink("loop", (folder / "loop").c_str()), 0);
    for (const char* name : {"none", "dangling", "loop", "file/below"}) {
        EXPECT_EQ(FileSystem::GetDiskUsage(folder / name, usage), StatusCode::NotFound) << name;
        EXPECT_EQ(FileSystem::GetRecursiveDiskUsage(folder / name, usage), StatusCode::NotFound) << name;
    }
    EXPECT_EQ(FileSystem::GetDiskUsage("", usage), StatusCode::NotFound);
    EXPECT_EQ(usage, UNTOUCHED);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_P(FileSystemUsage, AnEntryThatExistsButCannotBeMeasuredGivesTheStatusOfErrno) {
    MakeFile(folder / "file");
    fault_stat64.Fail(-1, EACCES);
    EXPECT_EQ(FileSystem::GetDiskUsage(folder / "file", usage), StatusCode::AccessDenied);
    EXPECT_EQ(usage, UNTOUCHED);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error(LOGGER, "[GetDiskUsage] Couldn't get size of path '" + (folder / "file") +
                                              "', status = AccessDenied")));
}

TEST_P(FileSystemUsage, TheUsageOfATreeIsTheSumOfItsEntries) {
    ASSERT_EQ(mkdir((folder / "sub").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((folder / "sub/deep").c_str(), 0755), 0);
    MakeFile(folder / "a", std::string(5000, 'x'));
    MakeFile(folder / "sub/b", std::string(50000, 'x'));
    MakeFile(folder / "sub/deep/c", "x");
    unsigned int expected = UsageOf(folder.Path());
    for (const char* name : {"a", "sub", "sub/b", "sub/deep", "sub/deep/c"}) {
        expected += UsageOf(folder / name);
    }
    const std::size_t before = tern::test::CountDescriptors();
    EXPECT_EQ(FileSystem::GetRecursiveDiskUsage(folder.Path(), usage), StatusCode::Ok);
    EXPECT_EQ(usage, expected);
    EXPECT_EQ(tern::test::CountDescriptors(), before);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_P(FileSystemUsage, TheUsageOfAFileIsItsOwn) {
    MakeFile(folder / "file", "x");
    EXPECT_EQ(FileSystem::GetRecursiveDiskUsage(folder / "file", usage), StatusCode::Ok);
    EXPECT_EQ(usage, UsageOf(folder / "file"));
}

TEST_P(FileSystemUsage, LinksToFoldersAreFollowed) {
    ASSERT_EQ(mkdir((folder / "tree").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((folder / "outside").c_str(), 0755), 0);
    MakeFile(folder / "outside/file", std::string(50000, 'x'));
    ASSERT_EQ(symlink("../outside", (folder / "tree/link").c_str()), 0);
    EXPECT_EQ(FileSystem::GetRecursiveDiskUsage(folder / "tree", usage), StatusCode::Ok);
    EXPECT_EQ(usage,
              UsageOf(folder / "tree") + UsageOf(folder / "outside") + UsageOf(folder / "outside/file"));
}

// Where the C++ library was built with 32-bit time, its own iterators fail at such files.
TEST_P(FileSystemUsage, ATreeOfAfter2038IsMeasured) {
    ASSERT_EQ(mkdir((folder / "tree").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((folder / "tree/sub").c_str(), 0755), 0);
    MakeFile(folder / "tree/sub/file", "x");
    ASSERT_EQ(symlink("sub", (folder / "tree/link").c_str()), 0);
    const time_t late = 2209032000;  // 2040
    const timespec times[] = {{late, 0}, {late, 0}};
    for (const char* name : {"tree/sub/file", "tree/sub", "tree"}) {
        ASSERT_EQ(utimensat(AT_FDCWD, (folder / name).c_str(), times, 0), 0);
    }
    if (Inspect(folder / "tree").st_mtime != late) {
        GTEST_SKIP() << "the file system has no times after 2038";
    }
    EXPECT_EQ(FileSystem::GetRecursiveDiskUsage(folder / "tree", usage), StatusCode::Ok);
    EXPECT_EQ(usage, UsageOf(folder / "tree") +
                         2 * (UsageOf(folder / "tree/sub") + UsageOf(folder / "tree/sub/file")));
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_P(FileSystemUsage, ADanglingLinkEndsTheWalkWithTheSumSoFar) {
    ASSERT_EQ(symlink("nowhere", (folder / "dangling").c_str()), 0);
    EXPECT_EQ(FileSystem::GetRecursiveDiskUsage(folder.Path(), usage), StatusCode::NotFound);
    EXPECT_EQ(usage, UsageOf(folder.Path()));
    EXPECT_THAT(log.Entries(), ElementsAre(Error(LOGGER, FailedAt(folder / "dangling", "NotFound"))));
}

// A link to a folder above it would be walked for ever, were it not for the limit of links in one path.
TEST_P(FileSystemUsage, ALoopOfLinksIsNotFound) {
    ASSERT_EQ(mkdir((folder / "sub").c_str(), 0755), 0);
    ASSERT_EQ(symlink("../sub", (folder / "sub/loop").c_str()), 0);
    EXPECT_EQ(FileSystem::GetRecursiveDiskUsage(folder.Path(), usage), StatusCode::NotFound);
    std::string deepest = folder / "sub";
    for (int depth = 0; depth < 41; ++depth) {
        deepest += "/loop";
    }
    EXPECT_THAT(log.Entries(), ElementsAre(Error(LOGGER, FailedAt(deepest, "NotFound"))));
}

/// `levels` folders of which each has two links to the next, and a file in the last: two ways at each level.
unsigned int MakeLadder(const FolderOn& folder, int levels) {
    for (int level = 0; level <= levels; ++level) {
        EXPECT_EQ(mkdir((folder / std::to_string(level)).c_str(), 0755), 0);
    }
    MakeFile(folder / (std::to_string(levels) + "/file"), "x");
    unsigned int below = UsageOf(folder / (std::to_string(levels) + "/file"));
    for (int level = levels - 1; level >= 0; --level) {
        const std::string next = "../" + std::to_string(level + 1);
        const std::string place = folder / std::to_string(level);
        EXPECT_EQ(symlink(next.c_str(), (place + "/left").c_str()), 0);
        EXPECT_EQ(symlink(next.c_str(), (place + "/right").c_str()), 0);
        below = 2 * (UsageOf(place + "/left") + below);
    }
    return UsageOf(folder / "0") + below;
}

// Thirteen seconds for 36 links, and twice as long with each level more.
TEST_P(FileSystemUsage, FoldersThatManyLinksLeadToAreReadOnce) {
    const unsigned int expected = MakeLadder(folder, 18);
    const FaultScope scope(fault_readdir64);
    fault_readdir64.Replace([](DIR* stream) { return fault_readdir64.Real(stream); }, 1);
    EXPECT_EQ(FileSystem::GetRecursiveDiskUsage(folder / "0", usage), StatusCode::Ok);
    EXPECT_EQ(usage, expected);
    EXPECT_LE(fault_readdir64.Calls(), 19 * 5);  // "." and "..", two entries, the end
}

TEST_P(FileSystemUsage, FoldersThatWereReadBeforeTheFirstLinkAreReadTwiceAtMost) {
    ASSERT_EQ(mkdir((folder / "tree").c_str(), 0755), 0);
    std::string deepest = folder / "tree";
    unsigned int expected = UsageOf(deepest);
    std::vector<std::string> folders;
    for (int level = 0; level < 20; ++level) {
        folders.push_back(deepest += "/sub");
        ASSERT_EQ(mkdir(deepest.c_str(), 0755), 0);
    }
    ASSERT_EQ(mkdir((folder / "tree/links").c_str(), 0755), 0);
    for (std::size_t level = 0; level < folders.size(); ++level) {
        ASSERT_EQ(symlink(folders[level].c_str(), (folder / ("tree/links/" + std::to_string(level))).c_str()),
                  0);
    }
    expected += UsageOf(folder / "tree/links");
    for (std::size_t level = 0; level < folders.size(); ++level) {
        expected += static_cast<unsigned int>(level + 2) * UsageOf(folders[level]);
    }
    const FaultScope scope(fault_readdir64);
    fault_readdir64.Replace([](DIR* stream) { return fault_readdir64.Real(stream); }, 1);
    EXPECT_EQ(FileSystem::GetRecursiveDiskUsage(folder / "tree", usage), StatusCode::Ok);
    EXPECT_EQ(usage, expected);
    EXPECT_LE(fault_readdir64.Calls(), 2 * (20 * 4 + 23 + 5));
}

TEST_P(FileSystemUsage, ADeepTreeNeedsFewDescriptorsAndNoPath) {
    tern::test::MakeDeepTree(folder.Path(), 1500, "deep");
    const ChildResult child = RunInChild([&] {
        unsigned int sum = 0;
        return tern::test::LimitDescriptors(tern::test::CountDescriptors() + 6) &&
                       FileSystem::GetRecursiveDiskUsage(folder.Path(), sum) == StatusCode::Ok &&
                       sum == UsageOf(folder.Path()) + 1500 * UsageOf(folder / "deep")
                   ? 0
                   : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    EXPECT_THAT(child.log, IsEmpty());
    EXPECT_EQ(FileSystem::DeleteFolder(folder / "deep", false), StatusCode::Ok);
}

TEST_P(FileSystemUsage, LinksOnTheWayAreComeBackFrom) {
    for (const char* name : {"0", "0/a", "0/z", "1", "1/a", "1/z", "2", "2/a", "2/z"}) {
        ASSERT_EQ(mkdir((folder / name).c_str(), 0755), 0);
        MakeFile(folder / (std::string(name) + "/file"), "x");
    }
    ASSERT_EQ(symlink("../1", (folder / "0/link").c_str()), 0);
    ASSERT_EQ(symlink("../../2", (folder / "1/a/link").c_str()), 0);
    EXPECT_EQ(FileSystem::GetRecursiveDiskUsage(folder / "0", usage), StatusCode::Ok);
    unsigned int expected = 0;
    for (const char* name : {"0", "0/a", "0/z", "1", "1/a", "1/z", "2", "2/a", "2/z"}) {
        expected += UsageOf(folder / name) + UsageOf(folder / (std::string(name) + "/file"));
    }
    EXPECT_EQ(usage, expected);
}

TEST_P(FileSystemUsage, AnEntryThatCannotBeMeasuredEndsTheWalkWithItsStatus) {
    MakeFile(folder / "file");
    fault_fstatat64.Replace(
        [](int at, const char* name, struct stat* information, int flags) {
            if (std::string(name) == "file") {
                errno = EIO;
                return -1;
            }
            return fault_fstatat64.Real(at, name, information, flags);
        },
        1000);
    EXPECT_EQ(FileSystem::GetRecursiveDiskUsage(folder.Path(), usage), StatusCode::IoError);
    EXPECT_THAT(log.Entries(), ElementsAre(Error(LOGGER, "[GetDiskUsage] Couldn't get size of path '" +
                                                             (folder / "file") + "', status = IoError"),
                                           Error(LOGGER, FailedAt(folder / "file", "IoError"))));
}

TEST_P(FileSystemUsage, AFolderGivenWithASlashIsMeasuredTheSame) {
    MakeFile(folder / "file", std::string(5000, 'x'));
    const unsigned int expected = UsageOf(folder.Path()) + UsageOf(folder / "file");
    EXPECT_EQ(FileSystem::GetRecursiveDiskUsage(folder.Path() + "/", usage), StatusCode::Ok);
    EXPECT_EQ(usage, expected);
    fault_fstatat64.Fail(-1, EIO);
    EXPECT_EQ(FileSystem::GetRecursiveDiskUsage(folder.Path() + "/", usage), StatusCode::IoError);
    EXPECT_EQ(log.Entries().back(), Error(LOGGER, FailedAt(folder / "file", "IoError")));
}

TEST_P(FileSystemUsage, AFolderThatCannotBeOpenedEndsTheWalkWithTheStatusOfErrno) {
    ASSERT_EQ(mkdir((folder / "sub").c_str(), 0755), 0);
    const FaultScope scope(fault_openat64);
    fault_openat64.Fail(-1, EMFILE, 1, 1);
    EXPECT_EQ(FileSystem::GetRecursiveDiskUsage(folder.Path(), usage), StatusCode::ResourceUnavailable);
    EXPECT_EQ(usage, UsageOf(folder.Path()) + UsageOf(folder / "sub"));
    EXPECT_THAT(log.Entries(), ElementsAre(Error(LOGGER, FailedAt(folder / "sub", "ResourceUnavailable"))));
}

TEST_P(FileSystemUsage, AFolderThatCannotBeReadEndsTheWalkWithTheStatusOfErrno) {
    MakeFile(folder / "file", "x");
    const std::size_t before = tern::test::CountDescriptors();  // reads a folder itself
    const FaultScope scope(fault_readdir64);
    fault_readdir64.Fail(nullptr, EIO);
    EXPECT_EQ(FileSystem::GetRecursiveDiskUsage(folder.Path(), usage), StatusCode::IoError);
    EXPECT_EQ(usage, UsageOf(folder.Path()));
    EXPECT_EQ(tern::test::CountDescriptors(), before);
    EXPECT_THAT(log.Entries(), ElementsAre(Error(LOGGER, FailedAt(folder.Path(), "IoError"))));
}

TEST_P(FileSystemUsage, AFolderThatCannotBeEnteredEndsTheWalkWithItsStatus) {
    if (getuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    ASSERT_EQ(chmod(folder.Path().c_str(), 0755), 0);
    ASSERT_EQ(mkdir((folder / "closed").c_str(), 0700), 0);
    const ChildResult child = RunInChild([&] {
        unsigned int sum = 0;
        const unsigned int expected = UsageOf(folder.Path()) + UsageOf(folder / "closed");
        return setgroups(0, nullptr) == 0 && setgid(NOBODY) == 0 && setuid(NOBODY) == 0 &&
                       FileSystem::GetRecursiveDiskUsage(folder.Path(), sum) == StatusCode::AccessDenied &&
                       sum == expected &&
                       FileSystem::GetRecursiveDiskUsage(folder / "closed", sum) == StatusCode::AccessDenied
                   ? 0
                   : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    const auto message = Error(LOGGER, FailedAt(folder / "closed", "AccessDenied"));
    EXPECT_THAT(child.log, ElementsAre(message, message));
}
