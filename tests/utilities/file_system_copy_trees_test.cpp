// Deep, changing and large trees, copies of everything, and other file systems.

#include "utilities/file_system_copy_fixture.h"

namespace {

using namespace tern::test::copies;

TEST_P(FileSystemCopy, ADeepTreeNeedsFewDescriptors) {
    tern::test::MakeDeepTree(from, 100, "deep");
    ASSERT_EQ(mkdir((from + "deep/deep/sub").c_str(), 0755), 0);
    MakeFile(from + "deep/deep/sub/file", "content");
    const ChildResult child = RunInChild([&] {
        SetLogThreshold(3);
        return tern::test::LimitDescriptors(tern::test::CountDescriptors() + 12) &&
                       CopyAll() == StatusCode::Ok
                   ? 0
                   : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    std::string deepest = to;
    for (int level = 0; level < 100; ++level) {
        deepest += "deep/";
    }
    EXPECT_TRUE(Exists(deepest + "file"));
    EXPECT_EQ(ContentOf(to + "deep/deep/sub/file"), "content");
}

TEST_P(FileSystemCopy, CopyingEndsWhereAPathIsTooLong) {
    tern::test::MakeDeepTree(from, 45, std::string(100, 'd'));
    const LogCapture log(3);
    EXPECT_EQ(FileSystem::CopyWholeFolderContent(from, to), StatusCode::Failure);  // ENAMETOOLONG
    EXPECT_TRUE(Exists(to + std::string(100, 'd') + "/" + std::string(100, 'd') + "/file"));
    EXPECT_NE(log.Entries().front().text.find("(errno=File name too long)"), std::string::npos);
    EXPECT_EQ(FileSystem::DeleteFolder(folder / "from", false), StatusCode::Ok);
}

TEST_P(FileSystemCopy, AFolderMovedAwayWhileTheWalkIsDeepBelowItEndsTheCopy) {
    for (const std::string& place : {from, to}) {
        tern::test::MakeDeepTree(from, 40, "deep");
        ASSERT_EQ(unlink((from + "deep/file").c_str()), 0);
        std::string deepest;
        for (int level = 0; level < 40; ++level) {
            deepest += "deep/";
        }
        const LogCapture log(3);
        fault_sendfile64.Replace(
            [&](int target, int source, off_t* offset, size_t count) {
                if (Exists(to + deepest)) {
                    rename((place + "deep/deep/deep").c_str(), (folder / "moved").c_str());
                }
                return fault_sendfile64.Real(target, source, offset, count);
            },
            1000);
        EXPECT_EQ(CopyAll(), StatusCode::Failure);
        EXPECT_EQ(log.Entries().back(), Error(LOGGER, "CopyFolderContent: Failed to read directory " + from +
                                                          "deep/deep/, errno = Stale file handle"));
        EXPECT_EQ(FileSystem::DeleteFolderContent(from, true, true), StatusCode::Ok);
        EXPECT_EQ(FileSystem::DeleteFolderContent(to, true, true), StatusCode::Ok);
        EXPECT_EQ(FileSystem::DeleteFolder(folder / "moved", false), StatusCode::Ok);
    }
}

TEST_P(FileSystemCopy, ACopyIntoItselfEnds) {
    MakeFile(from + "file", "content");
    ASSERT_EQ(mkdir((from + "copy").c_str(), 0755), 0);
    const LogCapture log(3);
    EXPECT_EQ(FileSystem::CopyWholeFolderContent(from, from + "copy/"), StatusCode::InvalidArgument);
    EXPECT_THAT(log.Entries(), ElementsAre(Error(LOGGER, "CopyFolderContent: Failed to copy sub-folder (" +
                                                             from + "copy), status = InvalidArgument")));
    EXPECT_THAT(NamesInOrder(from + "copy"), ElementsAre("file"));
}

TEST_P(FileSystemCopy, OfEverythingTheFirstFailureIsTheResult) {
    MakeFile(from + "one", "content");
    MakeFile(from + "two", "content");
    const std::vector<std::string> names = NamesInOrder(from);
    ASSERT_EQ(mkdir((to + names[0]).c_str(), 0755), 0);
    const LogCapture log;
    EXPECT_EQ(CopyAll(), StatusCode::Ok);
    EXPECT_EQ(FileSystem::CopyWholeFolderContent(from, to), StatusCode::IoError);
    EXPECT_EQ(ContentOf(to + names[1]), "content") << "it goes on all the same";
    ASSERT_EQ(rmdir((to + names[0]).c_str()), 0);
    EXPECT_EQ(FileSystem::CopyWholeFolderContent(from, to), StatusCode::Ok);
    EXPECT_EQ(ContentOf(to + names[0]), "content");
    EXPECT_EQ(ModeOf(to + names[0]), 0644U);
    EXPECT_EQ(FileSystem::CopyWholeFolderContent(from + "none/", to), StatusCode::Failure);
}

TEST_P(FileSystemCopy, OfEverythingNothingIsLeftOutWithoutAFailure) {
    const LogCapture log;
    EXPECT_EQ(FileSystem::CopyWholeFolderContent(from, to), StatusCode::Ok) << "there was nothing";
    ASSERT_EQ(mkdir((from + "sub").c_str(), 0755), 0);
    EXPECT_EQ(FileSystem::CopyWholeFolderContent(from, to), StatusCode::Ok);
    EXPECT_TRUE(Exists(to + "sub"));
    ASSERT_EQ(symlink("nowhere", (from + "sub/link").c_str()), 0);
    EXPECT_EQ(CopyAll(), StatusCode::Ok);
    EXPECT_EQ(FileSystem::CopyWholeFolderContent(from, to), StatusCode::NotSupported);
}

TEST_P(FileSystemCopy, OfEverythingAFileIsCopiedWhateverItsSize) {
    MakeFile(from + "file", "a long content");
    fault_sendfile64.Replace(
        [](int target, int source, off_t* offset, size_t count) {
            return fault_sendfile64.Real(target, source, offset, std::min<size_t>(count, 4));
        },
        1000);
    const LogCapture log;
    EXPECT_EQ(CopyAll(), StatusCode::IoError);
    EXPECT_EQ(FileSystem::CopyWholeFolderContent(from, to), StatusCode::Ok);
    EXPECT_EQ(ContentOf(to + "file"), "a long content");
}

TEST_P(FileSystemCopy, OfEverythingThatCannotBeStoredTheErrorIsTold) {
    MakeFile(from + "file", "content");
    const std::string bare = to.substr(0, to.size() - 1);
    const FaultScope scope(fault_syncfs);
    const LogCapture log(3);
    fault_syncfs.Fail(-1, EIO);
    EXPECT_EQ(FileSystem::CopyWholeFolderContent(from, to), StatusCode::IoError);
    fault_syncfs.Fail(-1, ENOSPC);
    EXPECT_EQ(FileSystem::CopyWholeFolderContent(from, bare), StatusCode::IoError);
    const std::string message = "CopyWholeFolderContent: Failed to store what is in ";
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error(LOGGER, message + to + ", errno = Input/output error"),
                            Error(LOGGER, message + bare + ", errno = No space left on device")));
}

TEST_P(FileSystemCopy, PathsAreJoinedAsTheyAre) {
    MakeFile(from + "file", "content");
    const LogCapture log;
    const std::string bare = to.substr(0, to.size() - 1);
    EXPECT_EQ(FileSystem::CopyFolderContent(from, bare, true, true), StatusCode::Ok);
    EXPECT_EQ(ContentOf(bare + "file"), "content");
    EXPECT_FALSE(Exists(to + "file"));

    const std::string bareFrom = from.substr(0, from.size() - 1);
    MakeFile(bareFrom + "file", "of another file");
    EXPECT_EQ(FileSystem::CopyFolderContent(bareFrom, to, true, true), StatusCode::Ok);
    EXPECT_EQ(ContentOf(to + "file"), "of another file");
}

// What had been copied until a medium failed was a success once: half a backup was told as a whole one.
TEST_P(FileSystemCopy, AFolderThatCannotBeReadToItsEndIsAFailure) {
    MakeFile(from + "file", "content");
    const FaultScope scope(fault_readdir64);
    fault_readdir64.Fail(nullptr, EIO, 1, 3);  // behind ".", ".." and the file
    const LogCapture log;
    EXPECT_EQ(CopyAll(), StatusCode::IoError);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Copied("file"), Error(LOGGER, "CopyFolderContent: Failed to read directory " +
                                                              from + ", errno = Input/output error")));
}

TEST_P(FileSystemCopy, AFolderThatFailsToCloseIsCopied) {
    MakeFile(from + "file", "content");
    fault_closedir.Replace([](DIR* stream) {
        fault_closedir.Real(stream);
        errno = EIO;
        return -1;
    });
    const LogCapture log;
    EXPECT_EQ(CopyAll(), StatusCode::Ok);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(
            Copied("file"),
            Warning(LOGGER, "CopyFolderContent: Failed to close directory, errno: Input/output error")));
}

TEST_P(FileSystemCopy, NoDescriptorIsLeftBehind) {
    ASSERT_EQ(mkdir((from + "sub").c_str(), 0700), 0);
    MakeFile(from + "sub/file", "content");
    const LogCapture log;
    const std::size_t before = tern::test::CountDescriptors();
    EXPECT_EQ(CopyAll(), StatusCode::Ok);
    fault_sendfile64.Fail(-1, EIO);
    EXPECT_EQ(CopyAll(), StatusCode::IoError);
    EXPECT_EQ(tern::test::CountDescriptors(), before);
}

TEST_P(FileSystemCopy, AnEarlierCopyIsReplaced) {
    const LogCapture log;
    MakeFile(from + "file", "old and long");
    ASSERT_EQ(mkdir((from + "sub").c_str(), 0700), 0);
    MakeFile(from + "sub/file", "old and long");
    EXPECT_EQ(CopyAll(), StatusCode::Ok);
    MakeFile(to + "extra", "stays");
    MakeFile(from + "file", "new");
    MakeFile(from + "sub/file", "new");
    EXPECT_EQ(CopyAll(), StatusCode::Ok);
    EXPECT_EQ(ContentOf(to + "file"), "new");
    EXPECT_EQ(ContentOf(to + "sub/file"), "new");
    EXPECT_EQ(ContentOf(to + "extra"), "stays");
}

TEST_P(FileSystemCopy, FilesOfATreeGoToMeadowAndFoldersToTheCopyingUser) {
    if (!tern::test::CanMountPrivately()) {
        GTEST_SKIP() << "a mount namespace is not permitted here";
    }
    ASSERT_EQ(mkdir((from + "sub").c_str(), 0700), 0);
    MakeFile(from + "sub/file", "content");
    const ChildResult child = RunInChild([&] {
        fault_getpwnam_r.Reset();
        fault_getgrnam_r.Reset();
        fault_getpwuid_r.Reset();
        return tern::test::EnterPrivateMounts() &&
                       tern::test::CoverFile("/etc/passwd", folder / "passwd",
                                             "root:x:0:0::/:/bin/sh\nmeadow:x:61001:1::/:/bin/false\n") &&
                       tern::test::CoverFile("/etc/group", folder / "group",
                                             "root:x:0:\nmeadow:x:61002:\n") &&
                       CopyAll() == StatusCode::Ok
                   ? 0
                   : 1;
    });
    ASSERT_EQ(child.exitCode, 0) << child.error;
    EXPECT_EQ(Inspect(to + "sub/file").st_uid, 61001U);
    EXPECT_EQ(Inspect(to + "sub/file").st_gid, 61002U);
    EXPECT_EQ(ModeOf(to + "sub/file"), 0644U);
    EXPECT_EQ(Inspect(to + "sub").st_uid, 0U);
    EXPECT_EQ(Inspect(to + "sub").st_gid, 0U);
}

TEST_P(FileSystemCopy, OtherFileSystemsAreWalkedAndCopiedFrom) {
    if (!tern::test::CanMountPrivately()) {
        GTEST_SKIP() << "a mount namespace is not permitted here";
    }
    for (const char* type : {"tmpfs", "ramfs", "overlay"}) {
        const ChildResult child = RunInChild([&] {
            const std::string lower = folder / "lower";
            mkdir(lower.c_str(), 0755);
            const std::string options = std::string(type) == "overlay" ? "lowerdir=" + lower + ":" + to : "";
            if (!tern::test::EnterPrivateMounts()) {
                return 2;
            }
            MakeFile(lower + "/file", "content");
            mkdir((lower + "/sub").c_str(), 0755);
            MakeFile(lower + "/sub/file", "content");
            if (mount(type, from.c_str(), type, 0, options.c_str()) != 0) {
                return 3;
            }
            if (options.empty() &&
                FileSystem::CopyFolderContent(lower + "/", from, true, true) != StatusCode::Ok) {
                return 4;
            }
            return CopyAll() == StatusCode::Ok && ContentOf(to + "file") == "content" &&
                           ContentOf(to + "sub/file") == "content" &&
                           FileSystem::DeleteFolderContent(to, true, true) == StatusCode::Ok
                       ? 0
                       : 1;
        });
        if (child.exitCode == 3) {
            std::printf("%s cannot be mounted here, left out\n", type);
            continue;
        }
        EXPECT_EQ(child.exitCode, 0) << type << child.error;
        EXPECT_THAT(NamesInOrder(to), IsEmpty()) << type;
    }
}

}  // namespace
