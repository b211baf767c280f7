#include "utilities/file_system_copy_fixture.h"

namespace {

using namespace tern::test::copies;

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

}  // namespace
