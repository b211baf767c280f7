#include <dirent.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <tern/utilities/file_system.h>
#include <unistd.h>

#include <algorithm>

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
using tern::test::Inspect;
using tern::test::LogCapture;
using tern::test::LogEntry;
using tern::test::MakeFile;
using tern::test::ModeOf;
using tern::test::RunInChild;
using tern::test::SetLogThreshold;
using tern::test::Trace;
using tern::test::Warning;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

TERN_INTERPOSE(int, syncfs, (int file), (file))
TERN_INTERPOSE(int, closedir, (DIR * stream), (stream))
TERN_INTERPOSE(struct dirent*, readdir64, (DIR * stream), (stream))
TERN_INTERPOSE(ssize_t, sendfile64, (int to, int from, off_t* offset, size_t count),
               (to, from, offset, count))
TERN_INTERPOSE(int, fchmod, (int file, mode_t mode), (file, mode))
TERN_INTERPOSE(int, fchown, (int file, uid_t user, gid_t group), (file, user, group))
TERN_INTERPOSE(int, getpwnam_r,
               (const char* name, struct passwd* entry, char* buffer, size_t size, struct passwd** result),
               (name, entry, buffer, size, result))
TERN_INTERPOSE(int, getgrnam_r,
               (const char* name, struct group* entry, char* buffer, size_t size, struct group** result),
               (name, entry, buffer, size, result))
TERN_INTERPOSE(int, getpwuid_r,
               (uid_t uid, struct passwd* entry, char* buffer, size_t size, struct passwd** result),
               (uid, entry, buffer, size, result))

namespace {

const std::string LOGGER = "mwl::Utilities::FileSystem";
const std::string NO_ENTRY = "No such file or directory";

/// Names in the order in which a walk meets them.
std::vector<std::string> NamesInOrder(const std::string& folder) {
    std::vector<std::string> names;
    DIR* stream = opendir(folder.c_str());
    while (const dirent* entry = readdir(stream)) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
    }
    closedir(stream);
    return names;
}

/// On the file system of the parameter; every user and group name is this process's own unless a test says
/// otherwise.
class FileSystemCopy : public testing::TestWithParam<const char*> {
protected:
    FileSystemCopy() {
        EXPECT_EQ(mkdir((folder / "from").c_str(), 0755), 0);
        EXPECT_EQ(mkdir((folder / "to").c_str(), 0755), 0);
        fault_getpwnam_r.Replace(
            [](const char*, struct passwd* entry, char*, size_t, struct passwd** result) {
                entry->pw_uid = getuid();
                *result = entry;
                return 0;
            },
            100000);
        fault_getgrnam_r.Replace(
            [](const char*, struct group* entry, char*, size_t, struct group** result) {
                entry->gr_gid = getgid();
                *result = entry;
                return 0;
            },
            100000);
        fault_getpwuid_r.Replace(
            [](uid_t, struct passwd* entry, char* buffer, size_t size, struct passwd** result) {
                snprintf(buffer, size, "self");
                entry->pw_name = buffer;
                *result = entry;
                return 0;
            },
            100000);
    }

    StatusCode CopyAll() { return FileSystem::CopyFolderContent(from, to, true, true); }
    LogEntry Copied(const std::string& name, const std::string& status = "Ok") {
        return Info(LOGGER,
                    "CopyFolderContent: Copy " + from + name + " to " + to + name + ", status = " + status);
    }

    FolderOn folder{GetParam()};
    const std::string from = folder / "from/";
    const std::string to = folder / "to/";
    const FaultScope<int(DIR*)> closedirScope{fault_closedir};
    const FaultScope<ssize_t(int, int, off_t*, size_t)> sendfileScope{fault_sendfile64};
    const FaultScope<int(int, mode_t)> chmodScope{fault_fchmod};
    const FaultScope<int(int, uid_t, gid_t)> chownScope{fault_fchown};
    const FaultScope<int(const char*, struct passwd*, char*, size_t, struct passwd**)> userScope{
        fault_getpwnam_r};
    const FaultScope<int(const char*, struct group*, char*, size_t, struct group**)> groupScope{
        fault_getgrnam_r};
    const FaultScope<int(uid_t, struct passwd*, char*, size_t, struct passwd**)> uidScope{fault_getpwuid_r};
};

/// The file systems that every system has: the one for temporary files and one in memory.
INSTANTIATE_TEST_SUITE_P(OnDiskAndInMemory, FileSystemCopy, testing::Values("/tmp", "/dev/shm"));

}  // namespace

TEST_P(FileSystemCopy, AFolderThatCannotBeOpenedIsAFailure) {
    const LogCapture log;
    EXPECT_EQ(FileSystem::CopyFolderContent(from + "none/", to, true, true), StatusCode::Failure);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error(LOGGER, "CopyFolderContent: Failed to open directory: " + from + "none/")));
}

TEST_P(FileSystemCopy, AnEmptyFolderIsNotFound) {
    const LogCapture log;
    EXPECT_EQ(CopyAll(), StatusCode::NotFound);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_P(FileSystemCopy, ACopiedFileHasTheDefaultRights) {
    MakeFile(from + "file", "content");
    ASSERT_EQ(chmod((from + "file").c_str(), 0700), 0);
    const LogCapture log;
    const mode_t former = umask(0077);
    EXPECT_EQ(CopyAll(), StatusCode::Ok);
    umask(former);
    EXPECT_EQ(ContentOf(to + "file"), "content");
    EXPECT_EQ(ModeOf(to + "file"), 0644U);
    EXPECT_THAT(log.Entries(), ElementsAre(Copied("file")));
}

TEST_P(FileSystemCopy, WithoutTheMeadowUserAFileIsCopiedAllTheSameAndKeepsItsFirstMode) {
    MakeFile(from + "file", "content");
    fault_getpwnam_r.Fail(0, 0, 1000);
    const LogCapture log;
    const mode_t former = umask(0);
    EXPECT_EQ(CopyAll(), StatusCode::Ok);
    umask(former);
    EXPECT_EQ(ModeOf(to + "file"), 01204U);
    EXPECT_EQ(Inspect(to + "file").st_size, 7);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Copied("file"),
                    Error(LOGGER, "SetMeadowOwner: Failed to get user info or group info of file " + to +
                                      "file, errno Success"),
                    Warning(LOGGER, "CopyFolderContent: Failed to set meadow owner for " + to + "file")));
}

TEST_P(FileSystemCopy, TheMeadowUserIsLookedUpUntilItIsFoundOnceATree) {
    for (const char* name : {"one", "two", "three"}) {
        MakeFile(from + name, "content");
    }
    ASSERT_EQ(mkdir((from + "sub").c_str(), 0700), 0);
    MakeFile(from + "sub/file", "content");
    int calls = 0;
    fault_getpwnam_r.Replace(
        [&](const char*, struct passwd* entry, char*, size_t, struct passwd** result) {
            if (++calls == 1) {
                return EIO;
            }
            entry->pw_uid = getuid();
            *result = entry;
            return 0;
        },
        1000);
    const LogCapture log;
    EXPECT_EQ(CopyAll(), StatusCode::Ok);
    EXPECT_EQ(calls, 2);
    int copiesWithDefaultRights = 0;
    for (const char* name : {"one", "two", "three", "sub/file"}) {
        copiesWithDefaultRights += ModeOf(to + name) == 0644 ? 1 : 0;
    }
    EXPECT_EQ(copiesWithDefaultRights, 3) << "only the file of the failed look-up stays as it was made";
}

TEST_P(FileSystemCopy, AFileWhoseOwnerCannotBeSetIsCopied) {
    MakeFile(from + "file", "content");
    fault_fchown.Fail(-1, EPERM);
    const LogCapture log;
    EXPECT_EQ(CopyAll(), StatusCode::Ok);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Copied("file"),
                    Error(LOGGER, "SetMeadowOwner: Failed to change owner of file: " + to +
                                      "file (errno=Operation not permitted)"),
                    Warning(LOGGER, "CopyFolderContent: Failed to set meadow owner for " + to + "file")));
}

TEST_P(FileSystemCopy, AFileWhoseModeCannotBeSetIsCopied) {
    MakeFile(from + "file", "content");
    fault_fchmod.Fail(-1, EPERM);
    const LogCapture log;
    EXPECT_EQ(CopyAll(), StatusCode::Ok);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(
            Copied("file"),
            Error(LOGGER, "SetDefaultAccessRights: Failed to change permission of file: " + to +
                              "file (errno=Operation not permitted)"),
            Warning(LOGGER, "CopyFolderContent: Failed to set default meadow rights for " + to + "file")));
}

TEST_P(FileSystemCopy, AFileThatCannotBeCopiedGivesItsStatus) {
    MakeFile(from + "file", "content");
    ASSERT_EQ(mkdir((to + "file").c_str(), 0755), 0);
    const LogCapture log;
    EXPECT_EQ(CopyAll(), StatusCode::IoError);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(
            Error(LOGGER, "CopyFile: Failed to open file " + to + "file, errno = Is a directory"),
            Copied("file", "IoError"),
            Error(LOGGER, "CopyFolderContent: Failed to copy file (" + from + "file), status = IoError")));
}

TEST_P(FileSystemCopy, TheResultIsThatOfTheLastEntry) {
    MakeFile(from + "one", "content");
    MakeFile(from + "two", "content");
    const std::vector<std::string> names = NamesInOrder(from);
    const LogCapture log;
    ASSERT_EQ(mkdir((to + names[0]).c_str(), 0755), 0);
    EXPECT_EQ(CopyAll(), StatusCode::Ok) << "a failure of the first is covered by the second";
    EXPECT_EQ(ContentOf(to + names[1]), "content");

    ASSERT_EQ(rmdir((to + names[0]).c_str()), 0);
    ASSERT_EQ(unlink((to + names[1]).c_str()), 0);
    ASSERT_EQ(mkdir((to + names[1]).c_str(), 0755), 0);
    EXPECT_EQ(CopyAll(), StatusCode::IoError);
    EXPECT_EQ(ContentOf(to + names[0]), "content");
}

TEST_P(FileSystemCopy, FilesAndFoldersAreChosenAtTheFirstLevelOnly) {
    MakeFile(from + "file", "top");
    ASSERT_EQ(mkdir((from + "sub").c_str(), 0700), 0);
    ASSERT_EQ(mkdir((from + "sub/deep").c_str(), 0700), 0);
    MakeFile(from + "sub/file", "middle");
    MakeFile(from + "sub/deep/file", "bottom");
    const LogCapture log;
    EXPECT_EQ(FileSystem::CopyFolderContent(from, to, true, false), StatusCode::Ok);
    EXPECT_FALSE(Exists(to + "file"));
    EXPECT_EQ(ContentOf(to + "sub/file"), "middle");
    EXPECT_EQ(ContentOf(to + "sub/deep/file"), "bottom");
    EXPECT_EQ(ModeOf(to + "sub"), 0775U);
    EXPECT_EQ(ModeOf(to + "sub/deep"), 0775U);
    EXPECT_THAT(log.Entries(),
                UnorderedElementsAre(Trace(LOGGER, "CopyFolderContent: includeFiles=false, " + from +
                                                       "file is not copied to " + to),
                                     Trace(LOGGER, "CreateFolder: " + to + "sub"),
                                     Trace(LOGGER, "CreateFolder: " + to + "sub now exists"),
                                     Copied("sub/file"), Trace(LOGGER, "CreateFolder: " + to + "sub/deep"),
                                     Trace(LOGGER, "CreateFolder: " + to + "sub/deep now exists"),
                                     Copied("sub/deep/file"), Copied("sub/deep/"), Copied("sub/")));
}

TEST_P(FileSystemCopy, FoldersAloneWithoutFoldersAreNotFound) {
    ASSERT_EQ(mkdir((from + "sub").c_str(), 0700), 0);
    MakeFile(from + "sub/file", "content");
    const LogCapture log;
    EXPECT_EQ(FileSystem::CopyFolderContent(from, to, false, true), StatusCode::NotFound);
    EXPECT_FALSE(Exists(to + "sub"));
    EXPECT_THAT(log.Entries(), ElementsAre(Trace(LOGGER, "CopyFolderContent: includeFolders=false, " + from +
                                                             "sub is not copied to " + to)));
}

TEST_P(FileSystemCopy, FilesAloneWithoutFilesAreNotFound) {
    MakeFile(from + "file", "content");
    const LogCapture log;
    EXPECT_EQ(FileSystem::CopyFolderContent(from, to, true, false), StatusCode::NotFound);
    EXPECT_FALSE(Exists(to + "file"));
}

TEST_P(FileSystemCopy, AnEmptySubFolderIsCopied) {
    ASSERT_EQ(mkdir((from + "sub").c_str(), 0700), 0);
    const LogCapture log;
    EXPECT_EQ(CopyAll(), StatusCode::Ok);
    EXPECT_TRUE(Exists(to + "sub"));
    EXPECT_THAT(log.Entries(), ElementsAre(Trace(LOGGER, "CreateFolder: " + to + "sub"),
                                           Trace(LOGGER, "CreateFolder: " + to + "sub now exists"),
                                           Info(LOGGER, "CopyFolderContent: Copy empty " + from + "sub/ to " +
                                                            to + "sub/, status = Ok")));
}

TEST_P(FileSystemCopy, AFailureInASubFolderGivesItsStatus) {
    ASSERT_EQ(mkdir((from + "sub").c_str(), 0700), 0);
    MakeFile(from + "sub/file", "content");
    fault_sendfile64.Fail(-1, EROFS);
    const LogCapture log;
    EXPECT_EQ(CopyAll(), StatusCode::AccessDenied);
    EXPECT_EQ(log.Entries().back(), Error(LOGGER, "CopyFolderContent: Failed to copy sub-folder (" + from +
                                                      "sub/), status = AccessDenied"));
}

TEST_P(FileSystemCopy, ASubFolderThatCannotBeMadeGivesItsStatusWithoutAMessageOfItsOwn) {
    ASSERT_EQ(mkdir((from + "sub").c_str(), 0700), 0);
    const LogCapture log;
    EXPECT_EQ(FileSystem::CopyFolderContent(from, to + "none/", true, true), StatusCode::NotFound);
    EXPECT_THAT(log.Entries(), ElementsAre(Trace(LOGGER, "CreateFolder: " + to + "none/sub"),
                                           Error(LOGGER, "CreateFolder: Failed to create folder: " + to +
                                                             "none/sub (errno=" + NO_ENTRY + ")")));
}

TEST_P(FileSystemCopy, OtherKindsOfEntriesAreToldAndLeftOut) {
    MakeFile(folder / "target", "content");
    ASSERT_EQ(symlink("../target", (from + "link").c_str()), 0);
    ASSERT_EQ(mkfifo((from + "fifo").c_str(), 0600), 0);
    const int socketFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%ssocket", from.c_str());
    ASSERT_EQ(bind(socketFd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    close(socketFd);
    const LogCapture log;
    EXPECT_EQ(CopyAll(), StatusCode::NotFound);
    EXPECT_THAT(NamesInOrder(to), IsEmpty());
    const std::string end = ") is not supported";
    EXPECT_THAT(log.Entries(),
                UnorderedElementsAre(Info(LOGGER, "CopyFolderContent: File link, type (10" + end),
                                     Info(LOGGER, "CopyFolderContent: File fifo, type (1" + end),
                                     Info(LOGGER, "CopyFolderContent: File socket, type (12" + end)));
}

// The copy went through it, and gave what it led to another owner and mode.
TEST_P(FileSystemCopy, ALinkInTheDestinationIsNotFollowed) {
    MakeFile(from + "file", "content");
    MakeFile(folder / "outside", "precious");
    ASSERT_EQ(chmod((folder / "outside").c_str(), 0600), 0);
    for (const char* target : {"../outside", "../nowhere"}) {
        ASSERT_EQ(symlink(target, (to + "file").c_str()), 0);
        const LogCapture log;
        EXPECT_EQ(CopyAll(), StatusCode::Failure);
        EXPECT_THAT(log.Entries(),
                    ElementsAre(Error(LOGGER, "CopyFile: Failed to open file " + to +
                                                  "file, errno = Too many levels of symbolic links"),
                                Copied("file", "Failure"),
                                Error(LOGGER, "CopyFolderContent: Failed to copy file (" + from +
                                                  "file), status = Failure")));
        ASSERT_EQ(unlink((to + "file").c_str()), 0);
    }
    EXPECT_EQ(ContentOf(folder / "outside"), "precious");
    EXPECT_EQ(ModeOf(folder / "outside"), 0600U);
    EXPECT_FALSE(Exists(folder / "nowhere"));
}

TEST_P(FileSystemCopy, ALinkInPlaceOfASubFolderOfTheDestinationIsNotFollowed) {
    ASSERT_EQ(mkdir((from + "sub").c_str(), 0755), 0);
    MakeFile(from + "sub/file", "content");
    ASSERT_EQ(mkdir((folder / "outside").c_str(), 0700), 0);
    ASSERT_EQ(symlink("../outside", (to + "sub").c_str()), 0);
    const LogCapture log;
    EXPECT_EQ(CopyAll(), StatusCode::Failure);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Trace(LOGGER, "CreateFolder: " + to + "sub"),
                            Error(LOGGER, "CreateFolder: Failed to change permission on folder: " + to +
                                              "sub (errno=Too many levels of symbolic links)")));
    EXPECT_THAT(NamesInOrder(folder / "outside"), IsEmpty());
    EXPECT_EQ(ModeOf(folder / "outside"), 0700U);
}

// Who may write in the source saw to it that a file that only root may read became readable for all.
TEST_P(FileSystemCopy, ALinkThatTakesAFilesPlaceInTheSourceIsNotFollowed) {
    MakeFile(folder / "secret", "secret");
    MakeFile(from + "file", "content");
    const FaultScope scope(fault_readdir64);
    fault_readdir64.Replace(
        [&](DIR* stream) {
            struct dirent* const entry = fault_readdir64.Real(stream);
            if (entry != nullptr && std::string(entry->d_name) == "file") {
                unlink((from + "file").c_str());
                EXPECT_EQ(symlink("../secret", (from + "file").c_str()), 0);
            }
            return entry;
        },
        100);
    const LogCapture log;
    EXPECT_EQ(CopyAll(), StatusCode::Failure);
    EXPECT_FALSE(Exists(to + "file"));
}

TEST_P(FileSystemCopy, ALinkThatTakesAFoldersPlaceInTheSourceIsNotFollowed) {
    ASSERT_EQ(mkdir((folder / "secrets").c_str(), 0700), 0);
    MakeFile(folder / "secrets/file", "secret");
    ASSERT_EQ(mkdir((from + "sub").c_str(), 0755), 0);
    const FaultScope scope(fault_readdir64);
    fault_readdir64.Replace(
        [&](DIR* stream) {
            struct dirent* const entry = fault_readdir64.Real(stream);
            if (entry != nullptr && std::string(entry->d_name) == "sub") {
                rmdir((from + "sub").c_str());
                EXPECT_EQ(symlink("../secrets", (from + "sub").c_str()), 0);
            }
            return entry;
        },
        100);
    const LogCapture log;
    EXPECT_EQ(CopyAll(), StatusCode::Failure);
    EXPECT_THAT(NamesInOrder(to + "sub"), IsEmpty());
    EXPECT_EQ(log.Entries().back(), Error(LOGGER, "CopyFolderContent: Failed to copy sub-folder (" + from +
                                                      "sub/), status = Failure"));
}

TEST_P(FileSystemCopy, AFifoThatTakesAFilesPlaceIsNotWaitedFor) {
    for (const std::string& place : {from, to}) {
        MakeFile(from + "file", "content");
        const ChildResult child = RunInChild([&] {
            fault_readdir64.Replace(
                [&](DIR* stream) {
                    struct dirent* const entry = fault_readdir64.Real(stream);
                    if (entry != nullptr && std::string(entry->d_name) == "file") {
                        unlink((place + "file").c_str());
                        mkfifo((place + "file").c_str(), 0600);
                    }
                    return entry;
                },
                100);
            return CopyAll() == StatusCode::InvalidArgument ? 0 : 1;
        });
        EXPECT_EQ(child.exitCode, 0) << place << child.error;
        ASSERT_EQ(unlink((place + "file").c_str()), 0);
    }
}

// Owner and mode were set by the path once more, behind the back of the copy.
TEST_P(FileSystemCopy, OwnerAndModeAreThoseOfTheCopyWhateverTakesItsPlace) {
    MakeFile(from + "file", "content");
    MakeFile(folder / "outside", "precious");
    ASSERT_EQ(chmod((folder / "outside").c_str(), 0600), 0);
    fault_sendfile64.Replace([&](int target, int source, off_t* offset, size_t count) {
        const ssize_t copied = fault_sendfile64.Real(target, source, offset, count);
        EXPECT_EQ(rename((to + "file").c_str(), (folder / "moved").c_str()), 0);
        EXPECT_EQ(symlink("../outside", (to + "file").c_str()), 0);
        return copied;
    });
    const LogCapture log;
    EXPECT_EQ(CopyAll(), StatusCode::Ok);
    EXPECT_EQ(ModeOf(folder / "outside"), 0600U);
    EXPECT_EQ(ModeOf(folder / "moved"), 0644U);
}

TEST_P(FileSystemCopy, TheDestinationIsTheFolderThatItWasAtFirst) {
    MakeFile(from + "file", "content");
    ASSERT_EQ(mkdir((folder / "outside").c_str(), 0755), 0);
    const FaultScope scope(fault_readdir64);
    fault_readdir64.Replace([&](DIR* stream) {
        EXPECT_EQ(rename((folder / "to").c_str(), (folder / "moved").c_str()), 0);
        EXPECT_EQ(symlink("outside", (folder / "to").c_str()), 0);
        return fault_readdir64.Real(stream);
    });
    const LogCapture log;
    EXPECT_EQ(CopyAll(), StatusCode::Ok);
    EXPECT_THAT(NamesInOrder(folder / "outside"), IsEmpty());
    EXPECT_EQ(ContentOf(folder / "moved/file"), "content");
}

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
