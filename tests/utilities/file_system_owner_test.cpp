#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <tern/utilities/file_system.h>
#include <unistd.h>

#include "files.h"
#include "name_lookups.h"
#include "private_mounts.h"
#include "support/child.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

using mwl::StatusCode;
using mwl::Utilities::FileSystem;
using tern::test::ChildResult;
using tern::test::Error;
using tern::test::Exists;
using tern::test::FaultScope;
using tern::test::Info;
using tern::test::Inspect;
using tern::test::LogCapture;
using tern::test::MakeFile;
using tern::test::ModeOf;
using tern::test::RunInChild;
using tern::test::TempFolder;
using tern::test::Trace;
using testing::ElementsAre;
using testing::IsEmpty;

TERN_INTERPOSE(int, chmod, (const char* path, mode_t mode), (path, mode))
TERN_INTERPOSE(int, chown, (const char* path, uid_t user, gid_t group), (path, user, group))
TERN_INTERPOSE(int, mkdirat, (int folder, const char* name, mode_t mode), (folder, name, mode))
TERN_INTERPOSE(int, fchownat, (int folder, const char* name, uid_t user, gid_t group, int flags),
               (folder, name, user, group, flags))

namespace {

const std::string LOGGER = "mwl::Utilities::FileSystem";

constexpr uid_t MEADOW_UID = 61001;
constexpr gid_t MEADOW_GID = 61002;
constexpr uid_t WORKER_UID = 61003;
constexpr gid_t WORKER_GID = 61004;
constexpr uid_t LONER_UID = 61005;
constexpr uid_t STRANGER_UID = 61006;

/// A user database of the test's own. "loner" has no group of that name, "crowd" is a group alone.
const char* const PASSWD =
    "root:x:0:0::/:/bin/sh\n"
    "meadow:x:61001:1::/:/bin/false\n"
    "worker:x:61003:1::/:/bin/false\n"
    "loner:x:61005:1::/:/bin/false\n";
const char* const GROUP =
    "root:x:0:\n"
    "meadow:x:61002:\n"
    "worker:x:61004:\n"
    "crowd:x:61007:\n";

bool IsOwnedBy(const std::string& path, uid_t user, gid_t group) {
    const struct stat information = Inspect(path);
    return information.st_uid == user && information.st_gid == group;
}

/// As a user of the database without any privilege.
bool BecomeUser(uid_t user, gid_t group) {
    return setgroups(0, nullptr) == 0 && setgid(group) == 0 && setuid(user) == 0;
}

class FileSystemOwner : public testing::Test {
protected:
    /// Runs `body` in a child that has the database above; its exit status 0 is success.
    ChildResult RunWithUsers(const std::function<bool()>& body, const std::string& passwd = PASSWD,
                             const std::string& group = GROUP) {
        return RunInChild([&] {
            if (!tern::test::EnterPrivateMounts() ||
                !tern::test::CoverFile("/etc/passwd", folder / ".passwd", passwd) ||
                !tern::test::CoverFile("/etc/group", folder / ".group", group)) {
                return 2;
            }
            return body() ? 0 : 1;
        });
    }

    TempFolder folder;
    const std::string path = folder / "entry";
    const FaultScope<int(const char*, mode_t)> chmodScope{fault_chmod};
    const FaultScope<int(const char*, uid_t, gid_t)> chownScope{fault_chown};
    const FaultScope<int(int, const char*, uid_t, gid_t, int)> fchownatScope{fault_fchownat};
    tern::test::NameLookups lookups;
};

/// What needs other users than the running one.
class FileSystemOwnerWithUsers : public FileSystemOwner {
protected:
    void SetUp() override {
        if (!tern::test::CanMountPrivately()) {
            GTEST_SKIP() << "a mount namespace is not permitted here";
        }
        // Every user of the database comes here.
        ASSERT_EQ(chmod(folder.Path().c_str(), 0777), 0);
    }
};

}  // namespace

TEST_F(FileSystemOwner, AFolderIsMadeWithItsModeUnderEveryUmask) {
    lookups.KnowEveryName();
    for (const mode_t mask : {0000U, 0022U, 0027U, 0077U, 0777U}) {
        const std::string made = folder / std::to_string(mask);
        const LogCapture log;
        const mode_t former = umask(mask);
        const StatusCode status = FileSystem::CreateFolder(made);
        umask(former);
        EXPECT_EQ(status, StatusCode::Ok);
        EXPECT_EQ(ModeOf(made), 0775U) << mask;
        EXPECT_TRUE(S_ISDIR(Inspect(made).st_mode));
        EXPECT_THAT(log.Entries(), ElementsAre(Trace(LOGGER, "CreateFolder: " + made),
                                               Trace(LOGGER, "CreateFolder: " + made + " now exists")));
    }
}

TEST_F(FileSystemOwner, AFolderIsClosedToOthersUntilItsModeIsSet) {
    lookups.KnowEveryName();
    const LogCapture log;
    mode_t between = 0;
    fault_chmod.Replace([&](const char* made, mode_t mode) {
        between = ModeOf(made);
        return fault_chmod.Real(made, mode);
    });
    const mode_t former = umask(0);
    EXPECT_EQ(FileSystem::CreateFolder(path), StatusCode::Ok);
    umask(former);
    EXPECT_EQ(between, 0700U);
}

TEST_F(FileSystemOwner, ExistingFoldersAndFilesGetTheModeAnew) {
    lookups.KnowEveryName();
    const LogCapture log;
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    MakeFile(path + "/kept");
    EXPECT_EQ(FileSystem::CreateFolder(path), StatusCode::Ok);
    EXPECT_EQ(ModeOf(path), 0775U);
    EXPECT_EQ(FileSystem::CreateFolder(path + "/kept"), StatusCode::Ok);
    EXPECT_EQ(ModeOf(path + "/kept"), 0775U);
    EXPECT_TRUE(S_ISREG(Inspect(path + "/kept").st_mode));
}

// The file that the link led to became writable for the group and executable.
TEST_F(FileSystemOwner, ALinkToAFileIsNoFolder) {
    lookups.KnowEveryName();
    MakeFile(folder / "file", "content");
    ASSERT_EQ(chmod((folder / "file").c_str(), 0600), 0);
    ASSERT_EQ(symlink("file", path.c_str()), 0);
    const LogCapture log;
    EXPECT_EQ(FileSystem::CreateFolder(path), StatusCode::NotFound);
    EXPECT_EQ(ModeOf(folder / "file"), 0600U);
    EXPECT_TRUE(Exists(path));
    EXPECT_THAT(log.Entries(),
                ElementsAre(Trace(LOGGER, "CreateFolder: " + path),
                            Error(LOGGER, "CreateFolder: Failed to change permission on folder: " + path +
                                              " (errno=Not a directory)")));
}

TEST_F(FileSystemOwner, ALinkOfOnesOwnStandsForTheFolderThatItLeadsTo) {
    lookups.KnowEveryName();
    const LogCapture log;
    ASSERT_EQ(mkdir((folder / "folder").c_str(), 0700), 0);
    for (const std::string& target : {std::string("folder"), folder / "folder"}) {
        ASSERT_EQ(chmod((folder / "folder").c_str(), 0700), 0);
        ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0);
        EXPECT_EQ(FileSystem::CreateFolder(path), StatusCode::Ok) << target;
        EXPECT_EQ(ModeOf(folder / "folder"), 0775U) << target;
        ASSERT_EQ(unlink(path.c_str()), 0);
    }
    ASSERT_EQ(symlink("nowhere", path.c_str()), 0);
    EXPECT_EQ(FileSystem::CreateFolder(path), StatusCode::NotFound);
    EXPECT_FALSE(Exists(folder / "nowhere"));
}

TEST_F(FileSystemOwner, ALinkOfSomebodyElseIsNotFollowed) {
    if (getuid() != 0) {
        GTEST_SKIP() << "only root can give a link away";
    }
    lookups.KnowEveryName();
    ASSERT_EQ(mkdir((folder / "folder").c_str(), 0700), 0);
    ASSERT_EQ(symlink("folder", path.c_str()), 0);
    ASSERT_EQ(lchown(path.c_str(), WORKER_UID, WORKER_GID), 0);
    const LogCapture log;
    EXPECT_EQ(FileSystem::CreateFolder(path), StatusCode::Failure);
    EXPECT_EQ(ModeOf(folder / "folder"), 0700U);
    EXPECT_EQ(log.Entries().back(), Error(LOGGER, "CreateFolder: Failed to change permission on folder: " +
                                                      path + " (errno=Too many levels of symbolic links)"));
}

TEST_F(FileSystemOwner, WhatTakesTheNewFoldersPlaceIsNotTouched) {
    lookups.KnowEveryName();
    ASSERT_EQ(mkdir((folder / "folder").c_str(), 0700), 0);
    MakeFile(folder / "file");
    ASSERT_EQ(chmod((folder / "file").c_str(), 0600), 0);
    const LogCapture log;
    const FaultScope scope(fault_mkdirat);
    fault_mkdirat.Replace([&](int at, const char* name, mode_t mode) {
        const int result = fault_mkdirat.Real(at, name, mode);
        EXPECT_EQ(rmdir(path.c_str()), 0);
        EXPECT_EQ(symlink("folder", path.c_str()), 0);
        return result;
    });
    EXPECT_EQ(FileSystem::CreateFolder(path), StatusCode::Failure);
    EXPECT_EQ(ModeOf(folder / "folder"), 0700U);
    ASSERT_EQ(unlink(path.c_str()), 0);
    fault_mkdirat.Replace([&](int at, const char* name, mode_t mode) {
        const int result = fault_mkdirat.Real(at, name, mode);
        EXPECT_EQ(rmdir(path.c_str()), 0);
        EXPECT_EQ(rename((folder / "file").c_str(), path.c_str()), 0);
        return result;
    });
    EXPECT_EQ(FileSystem::CreateFolder(path), StatusCode::NotFound);
    EXPECT_EQ(ModeOf(path), 0600U);
}

// The owner went to what was there by then.
TEST_F(FileSystemOwner, ModeAndOwnerGoToTheSameFolder) {
    lookups.KnowEveryName();
    ASSERT_EQ(mkdir((folder / "folder").c_str(), 0700), 0);
    const LogCapture log;
    fault_fchownat.Replace([&](int at, const char* name, uid_t user, gid_t group, int flags) {
        EXPECT_EQ(rename(path.c_str(), (folder / "moved").c_str()), 0);
        EXPECT_EQ(symlink("folder", path.c_str()), 0);
        EXPECT_EQ(fault_fchownat.Real(at, name, user, group, flags), 0);
        struct stat information {};
        EXPECT_EQ(fstat(at, &information), 0);
        EXPECT_EQ(information.st_ino, Inspect(folder / "moved").st_ino);
        return 0;
    });
    EXPECT_EQ(FileSystem::CreateFolder(path), StatusCode::Ok);
    EXPECT_EQ(fault_fchownat.Calls(), 1);
    EXPECT_EQ(ModeOf(folder / "moved"), 0775U);
    EXPECT_EQ(ModeOf(folder / "folder"), 0700U);
}

TEST_F(FileSystemOwner, SeparatorsAtTheEndOfAPathDoNotMatterForFolders) {
    lookups.KnowEveryName();
    const LogCapture log;
    EXPECT_EQ(FileSystem::CreateFolder(path + "//"), StatusCode::Ok);
    EXPECT_EQ(ModeOf(path), 0775U);
    MakeFile(folder / "file");
    ASSERT_EQ(chmod((folder / "file").c_str(), 0600), 0);
    EXPECT_EQ(FileSystem::CreateFolder(folder / "file/"), StatusCode::NotFound);
    EXPECT_EQ(ModeOf(folder / "file"), 0600U);
    EXPECT_EQ(FileSystem::CreateFolder(""), StatusCode::NotFound);
}

TEST_F(FileSystemOwner, AFolderIsMadeInTheWorkingFolderAndWithoutProc) {
    if (!tern::test::CanMountPrivately()) {
        GTEST_SKIP() << "a mount namespace is not permitted here";
    }
    const ChildResult child = RunInChild([&] {
        lookups.KnowEveryName();
        return tern::test::EnterPrivateMounts() && tern::test::CoverWithSmallDisk("/proc", 64) &&
                       chdir(folder.Path().c_str()) == 0 &&
                       FileSystem::CreateFolder("entry") == StatusCode::Ok
                   ? 0
                   : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    EXPECT_EQ(ModeOf(path), 0775U);
}

TEST_F(FileSystemOwner, ParentsOfAFolderAreNotMade) {
    const LogCapture log;
    EXPECT_EQ(FileSystem::CreateFolder(path + "/below"), StatusCode::NotFound);
    EXPECT_FALSE(Exists(path));
    EXPECT_THAT(log.Entries(), ElementsAre(Trace(LOGGER, "CreateFolder: " + path + "/below"),
                                           Error(LOGGER, "CreateFolder: Failed to create folder: " + path +
                                                             "/below (errno=No such file or directory)")));
}

TEST_F(FileSystemOwner, AFolderWhoseModeCannotBeSetIsTakenBack) {
    const LogCapture log;
    fault_chmod.Fail(-1, EROFS);
    EXPECT_EQ(FileSystem::CreateFolder(path), StatusCode::AccessDenied);
    EXPECT_FALSE(Exists(path));
    EXPECT_THAT(log.Entries(),
                ElementsAre(Trace(LOGGER, "CreateFolder: " + path),
                            Error(LOGGER, "CreateFolder: Failed to change permission on folder: " + path +
                                              " (errno=Read-only file system)")));
}

TEST_F(FileSystemOwner, AFolderWhoseUserCannotBeLookedUpIsTakenBackWithTheStatusOfTheError) {
    const LogCapture log;
    fault_getpwuid_r.Fail(EIO);
    EXPECT_EQ(FileSystem::CreateFolder(path), StatusCode::IoError);
    EXPECT_FALSE(Exists(path));
    EXPECT_EQ(log.Entries().back(),
              Error(LOGGER, "CreateFolder: Failed to get user for uid: " + std::to_string(getuid()) +
                                " (errno=Input/output error)"));
}

TEST_F(FileSystemOwner, AFolderWhoseGroupCannotBeLookedUpIsTakenBackWithTheStatusOfTheError) {
    const LogCapture log;
    lookups.KnowEveryName();
    fault_getgrnam_r.Fail(EMFILE);
    EXPECT_EQ(FileSystem::CreateFolder(path), StatusCode::ResourceUnavailable);
    EXPECT_FALSE(Exists(path));
    EXPECT_EQ(log.Entries().back(), Error(LOGGER,
                                          "CreateFolder: Failed to get group for user: self (errno=Too many "
                                          "open files)"));
}

TEST_F(FileSystemOwner, AnExistingEmptyFolderWhoseOwnerCannotBeSetIsRemoved) {
    const LogCapture log;
    lookups.KnowEveryName();
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    fault_fchownat.Fail(-1, EPERM);
    EXPECT_EQ(FileSystem::CreateFolder(path), StatusCode::NotPermitted);
    EXPECT_FALSE(Exists(path));
    EXPECT_THAT(log.Entries(), ElementsAre(Trace(LOGGER, "CreateFolder: " + path),
                                           Trace(LOGGER, "CreateFolder: " + path + " now exists"),
                                           Error(LOGGER, "CreateFolder: Failed to change owner of folder: " +
                                                             path + " (errno=Operation not permitted)")));
}

TEST_F(FileSystemOwner, AFolderWithContentAndAFileSurviveAFailure) {
    const LogCapture log;
    lookups.KnowEveryName();
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    MakeFile(path + "/kept");
    fault_fchownat.Fail(-1, EPERM, 2);
    EXPECT_EQ(FileSystem::CreateFolder(path), StatusCode::NotPermitted);
    EXPECT_EQ(FileSystem::CreateFolder(path + "/kept"), StatusCode::NotPermitted);
    EXPECT_TRUE(Exists(path + "/kept"));
}

TEST_F(FileSystemOwner, DefaultAccessRightsAreReadForAllAndWriteForTheOwner) {
    MakeFile(path);
    const LogCapture log;
    for (const mode_t mask : {0000U, 0777U}) {
        ASSERT_EQ(chmod(path.c_str(), 0777), 0);
        const mode_t former = umask(mask);
        EXPECT_EQ(FileSystem::SetDefaultAccessRights(path), StatusCode::Ok);
        umask(former);
        EXPECT_EQ(ModeOf(path), 0644U);
    }
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(FileSystemOwner, AccessRightsThatCannotBeSetAreAFailureWhateverTheError) {
    const LogCapture log;
    EXPECT_EQ(FileSystem::SetDefaultAccessRights(path), StatusCode::Failure);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error(LOGGER, "SetDefaultAccessRights: Failed to change permission of file: " +
                                              path + " (errno=No such file or directory)")));
}

TEST_F(FileSystemOwner, MeadowLookUpsThatFailAreAFailureWhateverTheError) {
    MakeFile(path);
    const LogCapture log;
    const std::string message =
        "SetMeadowOwner: Failed to get user info or group info of file " + path + ", errno ";
    lookups.KnowEveryName();
    fault_getpwnam_r.Fail(EIO);
    EXPECT_EQ(FileSystem::SetMeadowOwner(path), StatusCode::Failure);
    lookups.KnowEveryName();
    fault_getgrnam_r.Fail(ENOENT);
    EXPECT_EQ(FileSystem::SetMeadowOwner(path), StatusCode::Failure);
    EXPECT_THAT(log.Entries(), ElementsAre(Error(LOGGER, message + "Input/output error"),
                                           Error(LOGGER, message + "No such file or directory")));
}

TEST_F(FileSystemOwner, AMeadowOwnerThatCannotBeSetIsAFailureWhateverTheError) {
    const LogCapture log;
    lookups.KnowEveryName();
    EXPECT_EQ(FileSystem::SetMeadowOwner(path), StatusCode::Failure);
    EXPECT_THAT(log.Entries(), ElementsAre(Error(LOGGER, "SetMeadowOwner: Failed to change owner of file: " +
                                                             path + " (errno=No such file or directory)")));
}

TEST_F(FileSystemOwner, AFailedChangeOfOwnershipGivesTheStatusOfErrno) {
    MakeFile(path);
    const LogCapture log;
    lookups.KnowEveryName();
    fault_chown.Fail(-1, EPERM);
    EXPECT_EQ(FileSystem::ChangeOwnership(path, "user", "group"), StatusCode::NotPermitted);
    EXPECT_EQ(FileSystem::ChangeOwnership(path + "none", "user", "group"), StatusCode::NotFound);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Error(LOGGER, "[ChangeOwnership] Unable to change ownership of the file " + path +
                                      ".\nerror[Operation not permitted], StatusCode[NotPermitted]"),
                    Error(LOGGER, "[ChangeOwnership] Unable to change ownership of the file " + path +
                                      "none.\nerror[No such file or directory], StatusCode[NotFound]")));
}

TEST_F(FileSystemOwner, LookUpsOfAChangeOfOwnershipThatFailAreAFailureWhateverTheError) {
    MakeFile(path);
    const LogCapture log;
    lookups.KnowEveryName();
    fault_getpwnam_r.Fail(EMFILE);
    EXPECT_EQ(FileSystem::ChangeOwnership(path, "user", "group"), StatusCode::Failure);
    lookups.KnowEveryName();
    fault_getgrnam_r.Fail(EIO);
    EXPECT_EQ(FileSystem::ChangeOwnership(path, "user", "group"), StatusCode::Failure);
    const std::string message =
        "[ChangeOwnership] Unable to change ownership of the file " + path + ".\nerror ";
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Error(LOGGER, message + "getpwnam[Too many open files] or getgrnam[Too many open files]"),
                    Error(LOGGER, message + "getpwnam[Input/output error] or getgrnam[Input/output error]")));
}

TEST_F(FileSystemOwner, ALookUpGetsALargerBufferUntilItSuffices) {
    MakeFile(path);
    const LogCapture log;
    lookups.KnowEveryName();
    size_t given = 0;
    fault_getgrnam_r.Replace(
        [&](const char*, struct group* entry, char* buffer, size_t size, struct group** result) {
            buffer[size - 1] = 'x';
            given = size;
            if (size < 100000) {
                return ERANGE;
            }
            entry->gr_gid = getgid();
            *result = entry;
            return 0;
        },
        1000);
    EXPECT_EQ(FileSystem::ChangeOwnership(path, "user", "group"), StatusCode::Ok);
    EXPECT_GE(given, 100000U);
    EXPECT_LT(given, 200000U);
}

TEST_F(FileSystemOwner, ALookUpForWhichNoBufferIsLargeEnoughEnds) {
    MakeFile(path);
    const LogCapture log;
    fault_getpwnam_r.Fail(ERANGE, 0, 1000);
    EXPECT_EQ(FileSystem::SetMeadowOwner(path), StatusCode::Failure);
    EXPECT_LT(fault_getpwnam_r.Calls(), 20);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error(LOGGER, "SetMeadowOwner: Failed to get user info or group info of file " +
                                              path + ", errno Numerical result out of range")));
}

TEST_F(FileSystemOwnerWithUsers, MeadowOwnsWhatIsGivenToIt) {
    MakeFile(path);
    const ChildResult child =
        RunWithUsers([&] { return FileSystem::SetMeadowOwner(path) == StatusCode::Ok; });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    EXPECT_THAT(child.log, IsEmpty());
    EXPECT_TRUE(IsOwnedBy(path, MEADOW_UID, MEADOW_GID));
}

TEST_F(FileSystemOwnerWithUsers, WithoutTheMeadowUserOrGroupNothingChanges) {
    MakeFile(path);
    const auto refused = [&] { return FileSystem::SetMeadowOwner(path) == StatusCode::Failure; };
    const auto message = Error(
        LOGGER, "SetMeadowOwner: Failed to get user info or group info of file " + path + ", errno Success");
    const ChildResult withoutUser = RunWithUsers(refused, "root:x:0:0::/:/bin/sh\n");
    EXPECT_EQ(withoutUser.exitCode, 0);
    EXPECT_THAT(withoutUser.log, ElementsAre(message));
    const ChildResult withoutGroup = RunWithUsers(refused, PASSWD, "root:x:0:\n");
    EXPECT_EQ(withoutGroup.exitCode, 0);
    EXPECT_THAT(withoutGroup.log, ElementsAre(message));
    EXPECT_TRUE(IsOwnedBy(path, getuid(), getgid()));
}

TEST_F(FileSystemOwnerWithUsers, AGroupWithManyMembersIsFound) {
    MakeFile(path);
    std::string group = "meadow:x:61002:first";
    for (int number = 0; number < 5000; ++number) {
        group += ",member" + std::to_string(number);
    }
    const ChildResult child = RunWithUsers([&] { return FileSystem::SetMeadowOwner(path) == StatusCode::Ok; },
                                           PASSWD, group + "\n");
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_TRUE(IsOwnedBy(path, MEADOW_UID, MEADOW_GID));
}

TEST_F(FileSystemOwnerWithUsers, OwnershipGoesToTheNamedUserAndGroup) {
    MakeFile(path);
    const ChildResult child =
        RunWithUsers([&] { return FileSystem::ChangeOwnership(path, "loner", "worker") == StatusCode::Ok; });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_THAT(child.log, ElementsAre(Info(LOGGER, "[ChangeOwnership] Changed ownership of the file " +
                                                        path + " to loner:worker")));
    EXPECT_TRUE(IsOwnedBy(path, LONER_UID, WORKER_GID));
}

TEST_F(FileSystemOwnerWithUsers, OwnershipDoesNotGoToUnknownNames) {
    MakeFile(path);
    const ChildResult child = RunWithUsers([&] {
        return FileSystem::ChangeOwnership(path, "crowd", "crowd") == StatusCode::Failure &&
               FileSystem::ChangeOwnership(path, "loner", "loner") == StatusCode::Failure;
    });
    EXPECT_EQ(child.exitCode, 0);
    const auto message = Error(LOGGER, "[ChangeOwnership] Unable to change ownership of the file " + path +
                                           ".\nerror getpwnam[Success] or getgrnam[Success]");
    EXPECT_THAT(child.log, ElementsAre(message, message));
    EXPECT_TRUE(IsOwnedBy(path, getuid(), getgid()));
}

TEST_F(FileSystemOwnerWithUsers, AFolderGoesToItsMakerAndTheGroupOfThatName) {
    const ChildResult child = RunWithUsers([&] {
        const gid_t own = WORKER_GID;
        // The user's login group is another one: the group of the user's name counts.
        return setgroups(1, &own) == 0 && setgid(1) == 0 && setuid(WORKER_UID) == 0 &&
               FileSystem::CreateFolder(path) == StatusCode::Ok;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    EXPECT_TRUE(IsOwnedBy(path, WORKER_UID, WORKER_GID));
    EXPECT_EQ(ModeOf(path), 0775U);
}

TEST_F(FileSystemOwnerWithUsers, AnExistingFolderGetsItsOwnerAnew) {
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    ASSERT_EQ(chown(path.c_str(), WORKER_UID, WORKER_GID), 0);
    const ChildResult child = RunWithUsers([&] { return FileSystem::CreateFolder(path) == StatusCode::Ok; });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_TRUE(IsOwnedBy(path, 0, 0));
    EXPECT_EQ(ModeOf(path), 0775U);
}

TEST_F(FileSystemOwnerWithUsers, AFolderThatItsMakerMayNotGiveToTheGroupIsTakenBack) {
    const ChildResult child = RunWithUsers([&] {
        return BecomeUser(WORKER_UID, 1) && FileSystem::CreateFolder(path) == StatusCode::NotPermitted;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    EXPECT_FALSE(Exists(path));
    EXPECT_EQ(child.log.back(), Error(LOGGER, "CreateFolder: Failed to change owner of folder: " + path +
                                                  " (errno=Operation not permitted)"));
}

TEST_F(FileSystemOwnerWithUsers, AFolderOfAnUnknownUserOrGroupIsTakenBackAsAFailure) {
    const ChildResult stranger = RunWithUsers(
        [&] { return BecomeUser(STRANGER_UID, 1) && FileSystem::CreateFolder(path) == StatusCode::Failure; });
    EXPECT_EQ(stranger.exitCode, 0) << stranger.error;
    EXPECT_FALSE(Exists(path));
    EXPECT_EQ(stranger.log.back(),
              Error(LOGGER, "CreateFolder: Failed to get user for uid: 61006 (errno=Success)"));

    const ChildResult loner = RunWithUsers(
        [&] { return BecomeUser(LONER_UID, 1) && FileSystem::CreateFolder(path) == StatusCode::Failure; });
    EXPECT_EQ(loner.exitCode, 0) << loner.error;
    EXPECT_FALSE(Exists(path));
    EXPECT_EQ(loner.log.back(),
              Error(LOGGER, "CreateFolder: Failed to get group for user: loner (errno=Success)"));
}
