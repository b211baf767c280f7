#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <tern/utilities/file_system.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>

#include "files.h"
#include "private_mounts.h"
#include "support/child.h"
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
using tern::test::Info;
using tern::test::LogCapture;
using tern::test::LogEntry;
using tern::test::MakeFile;
using tern::test::RunInChild;
using testing::ElementsAre;
using testing::IsEmpty;

TERN_INTERPOSE(int, unlinkat, (int folder, const char* name, int flags), (folder, name, flags))
TERN_INTERPOSE(int, statx, (int folder, const char* name, int flags, unsigned int mask, struct statx* entry),
               (folder, name, flags, mask, entry))
TERN_INTERPOSE(int, remove, (const char* path), (path))
TERN_INTERPOSE(struct dirent*, readdir64, (DIR * stream), (stream))

namespace {

const std::string LOGGER = "mwl::Utilities::FileSystem";
const std::string NO_ENTRY = "No such file or directory";
constexpr uid_t NOBODY = 65534;

/// A tree with every kind of entry, on the file system of the parameter.
class FileSystemDelete : public testing::TestWithParam<const char*> {
protected:
    FileSystemDelete() {
        MakeFile(folder / "outside", "stays");
        mkdir((folder / "outside_folder").c_str(), 0755);
        MakeFile(folder / "outside_folder/file", "stays");
        mkdir(tree.c_str(), 0755);
        mkdir((tree + "/sub").c_str(), 0755);
        mkdir((tree + "/sub/deep").c_str(), 0755);
        MakeFile(tree + "/file", "content");
        MakeFile(tree + "/sub/file", "content");
        MakeFile(tree + "/sub/deep/file", "content");
        EXPECT_EQ(symlink("../outside", (tree + "/link").c_str()), 0);
        EXPECT_EQ(symlink("../outside_folder", (tree + "/folder_link").c_str()), 0);
        EXPECT_EQ(symlink("nowhere", (tree + "/sub/dangling").c_str()), 0);
        EXPECT_EQ(mkfifo((tree + "/sub/fifo").c_str(), 0600), 0);
    }

    bool OutsideIsWhole() {
        return ContentOf(folder / "outside") == "stays" &&
               ContentOf(folder / "outside_folder/file") == "stays";
    }

    /// Of the removals that `refuses` names, given name and flags, each fails.
    void Refuse(int error, std::function<bool(const std::string&, int)> refuses) {
        refused = 0;
        fault_unlinkat.Replace(
            [=, this](int at, const char* name, int flags) {
                if (!refuses(name, flags)) {
                    return fault_unlinkat.Real(at, name, flags);
                }
                ++refused;
                errno = error;
                return -1;
            },
            100000);
    }

    LogEntry FailedToRemove(const std::string& path, const std::string& text) {
        return Error(LOGGER, "DeleteFolder: Failed to remove " + path + " " + text);
    }
    LogEntry FailedToRemoveFolder(const std::string& path) {
        return Error(LOGGER, "DeleteFolder: Failed to remove folder " + path);
    }

    FolderOn folder{GetParam()};
    const std::string tree = folder / "tree";
    int refused = 0;
    const FaultScope<int(int, const char*, int)> unlinkatScope{fault_unlinkat};
    const FaultScope<int(int, const char*, int, unsigned int, struct statx*)> statxScope{fault_statx};
    const FaultScope<int(const char*)> removeScope{fault_remove};
};

INSTANTIATE_TEST_SUITE_P(OnDiskAndInMemory, FileSystemDelete, testing::Values("/tmp", "/dev/shm"));

}  // namespace

TEST_P(FileSystemDelete, AWholeTreeGoesAndLinksAreNotFollowed) {
    const LogCapture log;
    const std::size_t before = tern::test::CountDescriptors();
    EXPECT_EQ(FileSystem::DeleteFolder(tree, false), StatusCode::Ok);
    EXPECT_FALSE(Exists(tree));
    EXPECT_TRUE(OutsideIsWhole());
    EXPECT_THAT(log.Entries(), IsEmpty());
    EXPECT_EQ(tern::test::CountDescriptors(), before);
}

TEST_P(FileSystemDelete, ATreeDeeperThanTheDescriptorsOfTheWalkGoes) {
    std::string path = tree;
    for (int depth = 0; depth < 60; ++depth) {
        path += "/d";
        ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
        MakeFile(path + "/file");
    }
    EXPECT_EQ(FileSystem::DeleteFolder(tree, false), StatusCode::Ok);
    EXPECT_FALSE(Exists(tree));
}

TEST_P(FileSystemDelete, ATreeDeeperThanAnyPathGoes) {
    const LogCapture log;
    tern::test::MakeDeepTree(tree, 1500, "deep");
    EXPECT_EQ(FileSystem::DeleteFolder(tree, false), StatusCode::Ok);
    EXPECT_FALSE(Exists(tree));
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_P(FileSystemDelete, ADeepTreeNeedsFewDescriptors) {
    tern::test::MakeDeepTree(tree, 100, "deep");
    MakeFile(tree + "/deep/deep/deep/second");
    mkdir((tree + "/deep/deep/third").c_str(), 0755);
    const ChildResult child = RunInChild([&] {
        return tern::test::LimitDescriptors(tern::test::CountDescriptors() + 6) &&
                       FileSystem::DeleteFolder(tree, false) == StatusCode::Ok
                   ? 0
                   : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    EXPECT_THAT(child.log, IsEmpty());
    EXPECT_FALSE(Exists(tree));
}

// A walk by paths went through the link that had taken a folder's place, and removed files outside.
TEST_P(FileSystemDelete, ALinkThatTakesAFoldersPlaceIsRemovedItself) {
    fault_statx.Replace(
        [&](int at, const char* name, int flags, unsigned int mask, struct statx* entry) {
            const int result = fault_statx.Real(at, name, flags, mask, entry);
            if (std::string(name) == "sub") {
                EXPECT_EQ(rename((tree + "/sub").c_str(), (folder / "away").c_str()), 0);
                EXPECT_EQ(symlink("../outside_folder", (tree + "/sub").c_str()), 0);
            }
            return result;
        },
        100);
    EXPECT_EQ(FileSystem::DeleteFolder(tree, false), StatusCode::Ok);
    EXPECT_FALSE(Exists(tree));
    EXPECT_TRUE(OutsideIsWhole());
    EXPECT_EQ(ContentOf(folder / "away/file"), "content");
}

// The same without knowing the walk: whatever comes first, nothing outside goes.
TEST_P(FileSystemDelete, FoldersAndLinksThatTakeTurnsLeadNowhere) {
    const LogCapture log;
    const std::string aside = folder / "aside";
    const std::string place = tree + "/swapped";
    for (int round = 0; round < 40; ++round) {
        mkdir(tree.c_str(), 0755);
        ASSERT_EQ(mkdir(place.c_str(), 0755), 0);
        for (int number = 0; number < 50; ++number) {
            MakeFile(place + "/" + std::to_string(number));
            MakeFile(folder / ("outside_folder/" + std::to_string(number)), "stays");
        }
        ASSERT_EQ(symlink((folder / "outside_folder").c_str(), aside.c_str()), 0);
        std::atomic<bool> isOver{false};
        std::thread swapper([&] {
            while (!isOver &&
                   renameat2(AT_FDCWD, place.c_str(), AT_FDCWD, aside.c_str(), RENAME_EXCHANGE) == 0) {
            }
        });
        static_cast<void>(FileSystem::DeleteFolder(tree, true));
        isOver = true;
        swapper.join();
        for (int number = 0; number < 50; ++number) {
            ASSERT_TRUE(Exists(folder / ("outside_folder/" + std::to_string(number)))) << round;
        }
        static_cast<void>(FileSystem::DeleteFolder(tree, true));
        static_cast<void>(FileSystem::DeleteFolder(aside, true));
    }
    EXPECT_TRUE(OutsideIsWhole());
}

// On its way back the walk would go on in the folder that has become the one above.
TEST_P(FileSystemDelete, AFolderMovedAwayWhileTheWalkIsDeepBelowItEndsIt) {
    tern::test::MakeDeepTree(tree, 40, "deep");
    const std::string moved = tree + "/deep/deep/deep";
    const LogCapture log;
    bool isMoved = false;
    Refuse(0, [&](const std::string&, int flags) {
        if (flags == AT_REMOVEDIR && !isMoved) {
            isMoved = true;
            EXPECT_EQ(rename(moved.c_str(), (folder / "outside_folder/deep").c_str()), 0);
        }
        return false;
    });
    EXPECT_EQ(FileSystem::DeleteFolder(tree + "/deep", false), StatusCode::Failure);
    EXPECT_THAT(log.Entries(), ElementsAre(FailedToRemove(moved, "Stale file handle"),
                                           FailedToRemoveFolder(tree + "/deep")));
    EXPECT_TRUE(Exists(folder / "outside_folder/deep"));
    EXPECT_TRUE(OutsideIsWhole());
}

TEST_P(FileSystemDelete, TheRestOfAFolderThatWasClosedEarlyGoesToo) {
    tern::test::MakeDeepTree(tree, 30, "deep");
    std::string path = tree;
    for (int level = 0; level < 30; ++level) {
        for (const char* name : {"/a", "/b", "/y", "/z"}) {
            ASSERT_EQ(mkdir((path + name).c_str(), 0755), 0);
            MakeFile(path + name + "/file");
        }
        path += "/deep";
    }
    EXPECT_EQ(FileSystem::DeleteFolder(tree, false), StatusCode::Ok);
    EXPECT_FALSE(Exists(tree));
}

TEST_P(FileSystemDelete, AFileOrALinkInPlaceOfAFolderGoes) {
    EXPECT_EQ(FileSystem::DeleteFolder(tree + "/file", false), StatusCode::Ok);
    EXPECT_EQ(FileSystem::DeleteFolder(tree + "/folder_link", false), StatusCode::Ok);
    EXPECT_FALSE(Exists(tree + "/file"));
    EXPECT_FALSE(Exists(tree + "/folder_link"));
    EXPECT_TRUE(OutsideIsWhole());
}

TEST_P(FileSystemDelete, AMissingFolderFailsAndSaysSoUnlessQuiet) {
    const LogCapture log;
    EXPECT_EQ(FileSystem::DeleteFolder(folder / "none", true), StatusCode::NotFound);
    EXPECT_THAT(log.Entries(), IsEmpty());
    EXPECT_EQ(FileSystem::DeleteFolder(folder / "none", false), StatusCode::NotFound);
    EXPECT_THAT(log.Entries(), ElementsAre(FailedToRemoveFolder(folder / "none")));
}

TEST_P(FileSystemDelete, TheFirstEntryThatCannotBeRemovedEndsTheWalkWithItsStatus) {
    const LogCapture log;
    Refuse(EBUSY, [](const std::string&, int flags) { return flags == AT_REMOVEDIR; });
    EXPECT_EQ(FileSystem::DeleteFolder(tree, false), StatusCode::Busy);
    EXPECT_EQ(refused, 1);
    EXPECT_THAT(log.Entries(), ElementsAre(FailedToRemove(tree + "/sub/deep", "Device or resource busy"),
                                           FailedToRemoveFolder(tree)));
}

TEST_P(FileSystemDelete, QuietLeavesOutOnlyTheConcludingMessage) {
    const LogCapture log;
    Refuse(EROFS, [](const std::string& name, int) { return name == "fifo"; });
    EXPECT_EQ(FileSystem::DeleteFolder(tree, true), StatusCode::AccessDenied);
    EXPECT_EQ(refused, 1);
    EXPECT_THAT(log.Entries(), ElementsAre(FailedToRemove(tree + "/sub/fifo", "Read-only file system")));
}

TEST_P(FileSystemDelete, OtherMountsAreNotEntered) {
    if (!tern::test::CanMountPrivately()) {
        GTEST_SKIP() << "a mount namespace is not permitted here";
    }
    ASSERT_EQ(mkdir((tree + "/mounted").c_str(), 0755), 0);
    const ChildResult child = RunInChild([&] {
        if (!tern::test::EnterPrivateMounts() ||
            mount("tmpfs", (tree + "/mounted").c_str(), "tmpfs", 0, nullptr) != 0) {
            return 2;
        }
        MakeFile(tree + "/mounted/file", "stays");
        return FileSystem::DeleteFolder(tree, false) != StatusCode::Ok &&
                       ContentOf(tree + "/mounted/file") == "stays"
                   ? 0
                   : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    EXPECT_EQ(child.log.back(), FailedToRemoveFolder(tree));
    EXPECT_FALSE(Exists(tree + "/file"));
}

// The walk once emptied what was only shown there.
TEST_P(FileSystemDelete, AFolderOfTheSameFileSystemThatIsMountedInTheTreeIsNotEntered) {
    if (!tern::test::CanMountPrivately()) {
        GTEST_SKIP() << "a mount namespace is not permitted here";
    }
    ASSERT_EQ(mkdir((tree + "/mounted").c_str(), 0755), 0);
    struct statx entry {};
    ASSERT_EQ(statx(AT_FDCWD, "/", 0, STATX_TYPE, &entry), 0);
    if ((entry.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) == 0) {
        GTEST_SKIP() << "this kernel does not tell what is mounted";
    }
    const ChildResult child = RunInChild([&] {
        return tern::test::EnterPrivateMounts() &&
                       tern::test::ShowIn(tree + "/mounted", folder / "outside_folder") &&
                       FileSystem::DeleteFolder(tree, false) != StatusCode::Ok
                   ? 0
                   : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    EXPECT_TRUE(OutsideIsWhole());
    EXPECT_FALSE(Exists(tree + "/file"));
}

TEST_P(FileSystemDelete, AMountedFileIsSteppedOver) {
    if (!tern::test::CanMountPrivately()) {
        GTEST_SKIP() << "a mount namespace is not permitted here";
    }
    ASSERT_EQ(mkdir((folder / "disk").c_str(), 0755), 0);
    const ChildResult child = RunInChild([&] {
        if (!tern::test::EnterPrivateMounts() || !tern::test::CoverWithSmallDisk(folder / "disk", 64) ||
            !tern::test::CoverFile(tree + "/file", folder / "disk/store", "stays")) {
            return 2;
        }
        return FileSystem::DeleteFolder(tree, false) != StatusCode::Ok &&
                       ContentOf(tree + "/file") == "stays" && !Exists(tree + "/sub")
                   ? 0
                   : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    EXPECT_THAT(child.log,
                ElementsAre(FailedToRemove(tree, "Directory not empty"), FailedToRemoveFolder(tree)));
}

TEST_P(FileSystemDelete, AFolderThatCannotBeReadToItsEndIsTold) {
    const FaultScope scope(fault_readdir64);
    fault_readdir64.Fail(nullptr, EIO);
    const LogCapture log;
    EXPECT_EQ(FileSystem::DeleteFolder(tree, false), StatusCode::IoError);
    EXPECT_THAT(log.Entries(), ElementsAre(Error(LOGGER, "DeleteFolder: Failed to read directory " + tree +
                                                             ", errno = Input/output error"),
                                           FailedToRemoveFolder(tree)));
}

TEST_P(FileSystemDelete, SeparatorsAtTheEndOfAPathDoNotMatter) {
    const LogCapture log;
    EXPECT_EQ(FileSystem::DeleteFolder(tree + "/folder_link/", false), StatusCode::Ok);
    EXPECT_FALSE(Exists(tree + "/folder_link"));
    EXPECT_TRUE(OutsideIsWhole());
    EXPECT_EQ(FileSystem::DeleteFolder(tree + "//", false), StatusCode::Ok);
    EXPECT_FALSE(Exists(tree));
    EXPECT_EQ(FileSystem::DeleteFolder("", true), StatusCode::NotFound);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_P(FileSystemDelete, AnotherUsersTreeStays) {
    if (getuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    ASSERT_EQ(chmod(folder.Path().c_str(), 0755), 0);
    ASSERT_EQ(chmod((tree + "/sub").c_str(), 0700), 0);
    const ChildResult child = RunInChild([&] {
        return setgroups(0, nullptr) == 0 && setgid(NOBODY) == 0 && setuid(NOBODY) == 0 &&
                       // A folder that cannot be read is unlinked as if it were a file.
                       FileSystem::DeleteFolder(tree + "/sub", false) != StatusCode::Ok &&
                       FileSystem::DeleteFile(tree + "/file") == StatusCode::AccessDenied &&
                       FileSystem::DeleteFolderContent(tree + "/sub", true, true) == StatusCode::NotFound
                   ? 0
                   : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    ASSERT_EQ(child.log.size(), 4U);
    EXPECT_EQ(child.log[0].text.rfind("DeleteFolder: Failed to remove " + tree + "/sub ", 0), 0U);
    EXPECT_EQ(child.log[1], FailedToRemoveFolder(tree + "/sub"));
    EXPECT_EQ(child.log[2],
              Info(LOGGER, "DeleteFile: Failed to delete file: " + tree + "/file (errno=Permission denied)"));
    EXPECT_EQ(child.log[3], Error(LOGGER, "DeleteFolderContent: Failed to open dir " + tree +
                                              "/sub, errno = Permission denied"));
    EXPECT_TRUE(Exists(tree + "/sub/file"));
}

TEST_P(FileSystemDelete, FilesLinksAndEmptyFoldersAreDeletedAsFiles) {
    const LogCapture log;
    ASSERT_EQ(mkdir((tree + "/empty").c_str(), 0755), 0);
    for (const char* name : {"/file", "/link", "/empty", "/sub/fifo"}) {
        EXPECT_EQ(FileSystem::DeleteFile(tree + name), StatusCode::Ok) << name;
        EXPECT_FALSE(Exists(tree + name)) << name;
    }
    EXPECT_THAT(log.Entries(), IsEmpty());
    EXPECT_TRUE(OutsideIsWhole());
}

TEST_P(FileSystemDelete, AFileThatCannotBeDeletedIsToldAtInfoLevelOnly) {
    const LogCapture log;
    EXPECT_EQ(FileSystem::DeleteFile(tree + "/none"), StatusCode::NotFound);
    fault_remove.Fail(-1, EBUSY);
    EXPECT_EQ(FileSystem::DeleteFile(tree + "/file"), StatusCode::Busy);
    EXPECT_EQ(FileSystem::DeleteFile(tree + "/sub"), StatusCode::Failure);  // ENOTEMPTY
    const std::string message = "DeleteFile: Failed to delete file: " + tree;
    EXPECT_THAT(log.Entries(), ElementsAre(Info(LOGGER, message + "/none (errno=" + NO_ENTRY + ")"),
                                           Info(LOGGER, message + "/file (errno=Device or resource busy)"),
                                           Info(LOGGER, message + "/sub (errno=Directory not empty)")));
}

TEST_P(FileSystemDelete, AnEmptyPathIsRefusedWithoutASystemCall) {
    const LogCapture log;
    fault_remove.Fail(0);
    EXPECT_EQ(FileSystem::DeleteFile(""), StatusCode::Failure);
    EXPECT_EQ(fault_remove.Calls(), 0);
    EXPECT_THAT(log.Entries(), ElementsAre(Error(LOGGER, "DeleteFile: Impossible to remove empty path")));
}

TEST_P(FileSystemDelete, TheContentOfAFolderGoesByKind) {
    const LogCapture log;
    EXPECT_EQ(FileSystem::DeleteFolderContent(tree, false, false), StatusCode::Ok);
    EXPECT_TRUE(Exists(tree + "/file"));
    EXPECT_TRUE(Exists(tree + "/sub/deep/file"));

    EXPECT_EQ(FileSystem::DeleteFolderContent(tree, false, true), StatusCode::Ok);
    EXPECT_FALSE(Exists(tree + "/file"));
    EXPECT_TRUE(Exists(tree + "/sub/deep/file"));

    MakeFile(tree + "/file", "again");
    EXPECT_EQ(FileSystem::DeleteFolderContent(tree, true, false), StatusCode::Ok);
    EXPECT_TRUE(Exists(tree + "/file"));
    EXPECT_FALSE(Exists(tree + "/sub"));

    EXPECT_EQ(FileSystem::DeleteFolderContent(tree, true, true), StatusCode::Ok);
    EXPECT_FALSE(Exists(tree + "/file"));
    EXPECT_TRUE(Exists(tree + "/link"));
    EXPECT_TRUE(Exists(tree + "/folder_link"));
    EXPECT_TRUE(OutsideIsWhole());
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_P(FileSystemDelete, TheContentOfAMissingFolderIsNotFound) {
    const LogCapture log;
    EXPECT_EQ(FileSystem::DeleteFolderContent(folder / "none", true, true), StatusCode::NotFound);
    EXPECT_EQ(FileSystem::DeleteFolderContent(tree + "/file", true, true), StatusCode::NotFound);
    EXPECT_THAT(log.Entries(), ElementsAre(Error(LOGGER, "DeleteFolderContent: Failed to open dir " +
                                                             (folder / "none") + ", errno = " + NO_ENTRY),
                                           Error(LOGGER, "DeleteFolderContent: Failed to open dir " + tree +
                                                             "/file, errno = Not a directory")));
}

TEST_P(FileSystemDelete, DeletingContentGoesOnAfterAFailureAndReturnsIt) {
    MakeFile(tree + "/second", "content");
    const LogCapture log;
    Refuse(EBUSY, [](const std::string& name, int) { return name == "second"; });
    EXPECT_EQ(FileSystem::DeleteFolderContent(tree, true, true), StatusCode::Busy)
        << "a later success does not cover a failure";
    EXPECT_EQ(refused, 1);
    EXPECT_FALSE(Exists(tree + "/file"));
    EXPECT_TRUE(Exists(tree + "/second"));
    EXPECT_FALSE(Exists(tree + "/sub"));
    EXPECT_EQ(log.Entries().size(), 1U);
}

TEST_P(FileSystemDelete, DeletingContentReturnsTheLastOfSeveralFailures) {
    MakeFile(tree + "/second", "content");
    const LogCapture log;
    int calls = 0;
    fault_unlinkat.Replace(
        [&](int, const char*, int) {
            errno = ++calls == 1 ? EBUSY : EPERM;
            return -1;
        },
        2);
    EXPECT_EQ(FileSystem::DeleteFolderContent(tree, false, true), StatusCode::NotPermitted);
}

// What a failing medium hid was told as deleted.
TEST_P(FileSystemDelete, ContentThatCannotBeReadToItsEndIsAFailure) {
    const FaultScope scope(fault_readdir64);
    fault_readdir64.Fail(nullptr, EIO);
    const LogCapture log;
    EXPECT_EQ(FileSystem::DeleteFolderContent(tree, true, true), StatusCode::IoError);
    EXPECT_THAT(log.Entries(), ElementsAre(Error(LOGGER, "DeleteFolderContent: Failed to read directory " +
                                                             tree + ", errno = Input/output error")));
}

TEST_P(FileSystemDelete, AFolderOfTheContentThatStaysIsTold) {
    const LogCapture log;
    Refuse(EPERM, [](const std::string&, int flags) { return flags == AT_REMOVEDIR; });
    EXPECT_EQ(FileSystem::DeleteFolderContent(tree, true, false), StatusCode::NotPermitted);
    EXPECT_THAT(log.Entries(), ElementsAre(FailedToRemove(tree + "/sub/deep", "Operation not permitted"),
                                           FailedToRemoveFolder(tree + "/sub")));
}
