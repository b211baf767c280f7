#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tern/utilities/file_system.h>
#include <unistd.h>

#include <dirent.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <type_traits>

#include "files.h"
#include "support/emulation.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/process_resources.h"
#include "support/temp_folder.h"

using mwl::StatusCode;
using mwl::Utilities::FileSystem;
using tern::test::ContentOf;
using tern::test::Error;
using tern::test::FaultScope;
using tern::test::Info;
using tern::test::LogCapture;
using tern::test::MakeFile;
using tern::test::ModeOf;
using tern::test::TempFolder;
using tern::test::Trace;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

TERN_INTERPOSE(int, close, (int fd), (fd))
TERN_INTERPOSE(int, fsync, (int fd), (fd))
TERN_INTERPOSE(ssize_t, write, (int fd, const void* buffer, size_t size), (fd, buffer, size))
TERN_INTERPOSE(int, closedir, (DIR * stream), (stream))
TERN_INTERPOSE(struct dirent*, readdir64, (DIR * stream), (stream))
TERN_INTERPOSE(ssize_t, readlink, (const char* path, char* buffer, size_t size), (path, buffer, size))

namespace {

const std::string LOGGER = "mwl::Utilities::FileSystem";

/// A folder with one entry of every kind that can be made without privileges.
class FileSystemOnEveryKind : public testing::Test {
protected:
    FileSystemOnEveryKind() {
        for (const char* name : {"a.txt", "b.tar.txt", "txt", "a.TXT", "plain", ".txt", "end.", ".hidden"}) {
            MakeFile(folder / name);
        }
        for (const char* name : {"c.txt", "sub", "..."}) {
            mkdir((folder / name).c_str(), 0755);
        }
        EXPECT_EQ(symlink("a.txt", (folder / "link.txt").c_str()), 0);
        EXPECT_EQ(symlink("sub", (folder / "link_to_sub").c_str()), 0);
        EXPECT_EQ(mkfifo((folder / "fifo.txt").c_str(), 0600), 0);
    }

    TempFolder folder;
    FileSystem fileSystem;
    std::set<std::string> files;
    std::unordered_set<std::string> folders;
};

/// Records which virtual operation the others go through.
class RecordingFileSystem : public FileSystem {
public:
    StatusCode ListFilesWithFileNameExtension(const std::string& folder, const std::string& extension,
                                              std::set<std::string>& files) const override {
        files.insert(folder + "|" + extension);
        return StatusCode::Busy;
    }
};

}  // namespace

TEST(FileSystem, SeparatorsAreTheUsualOnes) {
    EXPECT_EQ(FileSystem::FOLDER_SEPARATOR, "/");
    EXPECT_EQ(FileSystem::FILENAME_EXTENSION_SEPARATOR, ".");
}

TEST(FileSystem, ObjectsHoldNothingButTheVirtualInterface) {
    EXPECT_EQ(sizeof(FileSystem), sizeof(void*));
    EXPECT_TRUE(std::has_virtual_destructor_v<FileSystem>);
}

TEST(FileSystem, VirtualOperationsForwardAndCanBeReplaced) {
    const TempFolder folder;
    MakeFile(folder / "file");
    const LogCapture log;
    FileSystem fileSystem;
    EXPECT_EQ(fileSystem.FileExists(folder / "file"), StatusCode::Ok);
    EXPECT_EQ(fileSystem.RenameFile(folder / "file", folder / "renamed"), StatusCode::Ok);
    EXPECT_EQ(fileSystem.FileExists(folder / "file"), StatusCode::NotFound);
    EXPECT_EQ(fileSystem.RemoveFile(folder / "renamed"), StatusCode::Ok);
    EXPECT_EQ(fileSystem.FileExists(folder / "renamed"), StatusCode::NotFound);

    RecordingFileSystem recording;
    std::set<std::string> files;
    EXPECT_EQ(static_cast<FileSystem&>(recording).ListFiles("/folder", files), StatusCode::Busy);
    EXPECT_THAT(files, ElementsAre("/folder|"));
}

TEST_F(FileSystemOnEveryKind, ListsRegularFilesWithExactlyTheTextBehindTheLastDot) {
    const LogCapture log;
    EXPECT_EQ(fileSystem.ListFilesWithFileNameExtension(folder.Path(), "txt", files), StatusCode::Ok);
    EXPECT_THAT(files, ElementsAre(".txt", "a.txt", "b.tar.txt"));
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(FileSystemOnEveryKind, AnExtensionIsTheLastPartOnlyAndComesWithoutItsDot) {
    for (const char* extension : {"tar.txt", ".txt", "t", "xt", "txtx"}) {
        EXPECT_EQ(fileSystem.ListFilesWithFileNameExtension(folder.Path(), extension, files), StatusCode::Ok);
        EXPECT_THAT(files, IsEmpty()) << extension;
    }
}

TEST_F(FileSystemOnEveryKind, ListsEveryRegularFileForAnEmptyExtension) {
    const auto all = ElementsAre(".hidden", ".txt", "a.TXT", "a.txt", "b.tar.txt", "end.", "plain", "txt");
    EXPECT_EQ(fileSystem.ListFilesWithFileNameExtension(folder.Path(), "", files), StatusCode::Ok);
    EXPECT_THAT(files, all);
    files.clear();
    EXPECT_EQ(fileSystem.ListFiles(folder.Path(), files), StatusCode::Ok);
    EXPECT_THAT(files, all);
}

TEST_F(FileSystemOnEveryKind, ListsFoldersButNotLinksToThem) {
    const LogCapture log;
    EXPECT_EQ(fileSystem.ListDirectories(folder.Path(), folders), StatusCode::Ok);
    EXPECT_THAT(folders, UnorderedElementsAre("c.txt", "sub", "..."));
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(FileSystemOnEveryKind, ListingsKeepWhatTheSetHeld) {
    files.insert("earlier");
    folders.insert("earlier");
    EXPECT_EQ(fileSystem.ListFilesWithFileNameExtension(folder.Path(), "TXT", files), StatusCode::Ok);
    EXPECT_EQ(fileSystem.ListDirectories(folder / "sub", folders), StatusCode::Ok);
    EXPECT_THAT(files, ElementsAre("a.TXT", "earlier"));
    EXPECT_THAT(folders, UnorderedElementsAre("earlier"));
}

TEST_F(FileSystemOnEveryKind, EntriesOfUnknownTypeAreNotListed) {
    const FaultScope scope(fault_readdir64);
    fault_readdir64.Replace(
        [](DIR* stream) {
            struct dirent* entry = fault_readdir64.Real(stream);
            if (entry != nullptr) {
                entry->d_type = DT_UNKNOWN;
            }
            return entry;
        },
        1000);
    EXPECT_EQ(fileSystem.ListFiles(folder.Path(), files), StatusCode::Ok);
    EXPECT_EQ(fileSystem.ListDirectories(folder.Path(), folders), StatusCode::Ok);
    EXPECT_GT(fault_readdir64.Calls(), 2);
    EXPECT_THAT(files, IsEmpty());
    EXPECT_THAT(folders, IsEmpty());
}

// A folder that could be read in part only, from a failing medium, gave a short list as a success, and one
// that could not be read at all counted as empty: a backup of it would have been taken for whole.
TEST_F(FileSystemOnEveryKind, AFolderThatCannotBeReadToItsEndIsReported) {
    const FaultScope scope(fault_readdir64);
    const std::string text = "Failed to read directory " + folder.Path() + ", errno = Input/output error";
    const LogCapture log;
    fault_readdir64.Fail(nullptr, EIO);
    EXPECT_EQ(fileSystem.ListFiles(folder.Path(), files), StatusCode::IoError);
    fault_readdir64.Fail(nullptr, EIO);
    EXPECT_EQ(fileSystem.ListDirectories(folder.Path(), folders), StatusCode::IoError);
    bool empty = false;
    fault_readdir64.Fail(nullptr, EIO);
    EXPECT_EQ(fileSystem.IsFolderEmpty(folder.Path(), empty), StatusCode::IoError);
    EXPECT_THAT(log.Entries(), ElementsAre(Error(LOGGER, "ListFilesWithFileNameExtension: " + text),
                                           Error(LOGGER, "ListDirectories: " + text),
                                           Error(LOGGER, "IsFolderEmpty: " + text)));
}

TEST_F(FileSystemOnEveryKind, AListingThatCannotOpenItsFolderFails) {
    const LogCapture log;
    EXPECT_EQ(fileSystem.ListFilesWithFileNameExtension(folder / "none", "txt", files), StatusCode::Failure);
    EXPECT_EQ(fileSystem.ListFiles(folder / "plain", files), StatusCode::Failure);
    EXPECT_EQ(fileSystem.ListDirectories(folder / "none", folders), StatusCode::Failure);
    const std::string none = folder / "none";
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error(LOGGER, "ListFilesWithFileNameExtension: Fail to open directory [" + none +
                                              "], errno: No such file or directory"),
                            Error(LOGGER, "ListFilesWithFileNameExtension: Fail to open directory [" +
                                              (folder / "plain") + "], errno: Not a directory"),
                            Error(LOGGER, "ListDirectories: Fail to open directory [" + none +
                                              "], errno: No such file or directory")));
    EXPECT_THAT(files, IsEmpty());
    EXPECT_THAT(folders, IsEmpty());
}

TEST_F(FileSystemOnEveryKind, AListingWhoseFolderFailsToCloseIsComplete) {
    const LogCapture log;
    const FaultScope scope(fault_closedir);
    const auto failAfterClosing = [](DIR* stream) {
        fault_closedir.Real(stream);
        errno = EIO;
        return -1;
    };
    fault_closedir.Replace(failAfterClosing, 2);
    EXPECT_EQ(fileSystem.ListFilesWithFileNameExtension(folder.Path(), "TXT", files), StatusCode::Ok);
    EXPECT_EQ(fileSystem.ListDirectories(folder.Path(), folders), StatusCode::Ok);
    EXPECT_THAT(files, ElementsAre("a.TXT"));
    EXPECT_EQ(folders.size(), 3U);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error(LOGGER, "ListFilesWithFileNameExtension: Failed to close directory [" +
                                              folder.Path() + "], errno: Input/output error"),
                            Error(LOGGER, "ListDirectories: Failed to close directory [" + folder.Path() +
                                              "], errno: Input/output error")));
}

TEST_F(FileSystemOnEveryKind, AFolderIsEmptyWithoutAnyEntryOfAnyKind) {
    const LogCapture log;
    bool empty = false;
    EXPECT_EQ(fileSystem.IsFolderEmpty(folder / "sub", empty), StatusCode::Ok);
    EXPECT_TRUE(empty);
    EXPECT_EQ(mkfifo((folder / "sub/fifo").c_str(), 0600), 0);
    EXPECT_EQ(fileSystem.IsFolderEmpty(folder / "sub", empty), StatusCode::Ok);
    EXPECT_FALSE(empty);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(FileSystemOnEveryKind, AMissingFolderIsReportedAsEmptyAndNotFound) {
    const LogCapture log;
    bool empty = false;
    EXPECT_EQ(fileSystem.IsFolderEmpty(folder / "none", empty), StatusCode::NotFound);
    EXPECT_TRUE(empty);
    empty = false;
    EXPECT_EQ(fileSystem.IsFolderEmpty(folder / "plain", empty), StatusCode::NotFound);
    EXPECT_TRUE(empty);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error(LOGGER, "IsFolderEmpty: Failed to open dir " + (folder / "none") +
                                              ", errno = No such file or directory"),
                            Error(LOGGER, "IsFolderEmpty: Failed to open dir " + (folder / "plain") +
                                              ", errno = Not a directory")));
}

TEST_F(FileSystemOnEveryKind, WalksLeaveNoDescriptorBehind) {
    const std::size_t before = tern::test::CountDescriptors();
    bool empty = false;
    EXPECT_EQ(fileSystem.ListFiles(folder.Path(), files), StatusCode::Ok);
    EXPECT_EQ(fileSystem.ListDirectories(folder.Path(), folders), StatusCode::Ok);
    EXPECT_EQ(fileSystem.IsFolderEmpty(folder.Path(), empty), StatusCode::Ok);
    EXPECT_EQ(tern::test::CountDescriptors(), before);
}

TEST_F(FileSystemOnEveryKind, EntriesOfAnyTypeExist) {
    const LogCapture log;
    for (const char* name : {"a.txt", "sub", "link.txt", "link_to_sub", "fifo.txt", ""}) {
        EXPECT_EQ(FileSystem::CheckFileExist(folder / name), StatusCode::Ok) << name;
    }
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(FileSystemOnEveryKind, WhatIsMissingOrOutOfReachDoesNotExist) {
    EXPECT_EQ(symlink("nowhere", (folder / "dangling").c_str()), 0);
    const LogCapture log;
    for (const std::string& path :
         {folder / "none", folder / "dangling", folder / "plain/below", std::string()}) {
        EXPECT_EQ(FileSystem::CheckFileExist(path), StatusCode::NotFound) << path;
        EXPECT_TRUE(log.Contains(Trace(LOGGER, "CheckFileExist: file '" + path + "' does not exist")));
    }
    EXPECT_EQ(log.Entries().size(), 4U);
}

TEST_F(FileSystemOnEveryKind, OnlyFoldersAreDirectoriesThatExist) {
    const LogCapture log;
    EXPECT_EQ(FileSystem::CheckDirectoryExist(folder / "sub"), StatusCode::Ok);
    EXPECT_EQ(FileSystem::CheckDirectoryExist(folder / "link_to_sub"), StatusCode::Ok);
    EXPECT_EQ(FileSystem::CheckDirectoryExist(folder / "a.txt"), StatusCode::NotFound);
    EXPECT_EQ(FileSystem::CheckDirectoryExist(folder / "none"), StatusCode::NotFound);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Info(LOGGER, "Directory [" + (folder / "sub") + "] found!"),
                            Info(LOGGER, "Directory [" + (folder / "link_to_sub") + "] found!"),
                            Info(LOGGER, "[" + (folder / "a.txt") + "] is not a directory"),
                            Info(LOGGER, "Directory [" + (folder / "none") + "] does not exist")));
}

TEST_F(FileSystemOnEveryKind, RenamingReplacesTheTarget) {
    MakeFile(folder / "from", "content");
    const LogCapture log;
    EXPECT_EQ(FileSystem::Rename(folder / "from", folder / "a.txt"), StatusCode::Ok);
    EXPECT_EQ(ContentOf(folder / "a.txt"), "content");
    EXPECT_EQ(FileSystem::CheckFileExist(folder / "from"), StatusCode::NotFound);
    EXPECT_EQ(log.Entries().front(), Info(LOGGER, "Rename: Successfully renamed '" + (folder / "from") +
                                                      "' to '" + (folder / "a.txt") + "'"));
}

TEST_F(FileSystemOnEveryKind, RenamingWhatIsMissingOrOntoAFolderFailsWithTheStatusOfErrno) {
    const LogCapture log;
    EXPECT_EQ(FileSystem::Rename(folder / "none", folder / "new"), StatusCode::NotFound);
    EXPECT_EQ(FileSystem::Rename(folder / "a.txt", folder / "sub"), StatusCode::IoError);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error(LOGGER, "Rename: Failed to rename '" + (folder / "none") + "' to '" +
                                              (folder / "new") + "' (errno=No such file or directory)"),
                            Error(LOGGER, "Rename: Failed to rename '" + (folder / "a.txt") + "' to '" +
                                              (folder / "sub") + "' (errno=Is a directory)")));
}

TEST_F(FileSystemOnEveryKind, LinksAreMadeReadAndDeleted) {
    const LogCapture log;
    const std::string link = folder / "new_link";
    std::string target;
    EXPECT_EQ(FileSystem::CreateSymbolicLink("some/where", link), StatusCode::Ok);
    EXPECT_EQ(FileSystem::ReadLink(link, target), StatusCode::Ok);
    EXPECT_EQ(target, "some/where");
    EXPECT_EQ(FileSystem::DeleteSymbolicLink(link), StatusCode::Ok);
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(link)));
    EXPECT_THAT(log.Entries(),
                ElementsAre(Info(LOGGER, "ReadLink: Successful '" + link + "' to 'some/where'")));
}

TEST_F(FileSystemOnEveryKind, DeletingALinkLeavesItsTarget) {
    EXPECT_EQ(FileSystem::DeleteSymbolicLink(folder / "link.txt"), StatusCode::Ok);
    EXPECT_EQ(FileSystem::CheckFileExist(folder / "a.txt"), StatusCode::Ok);
}

TEST_F(FileSystemOnEveryKind, FailedLinkOperationsGiveTheStatusOfErrno) {
    const LogCapture log;
    std::string target = "untouched";
    EXPECT_EQ(FileSystem::CreateSymbolicLink("target", folder / "a.txt"), StatusCode::AlreadyExists);
    EXPECT_EQ(FileSystem::DeleteSymbolicLink(folder / "none"), StatusCode::NotFound);
    EXPECT_EQ(FileSystem::ReadLink(folder / "a.txt", target), StatusCode::InvalidArgument);
    EXPECT_EQ(target, "untouched");
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error(LOGGER, "CreateSymbolicLink: Failed to create a symbolic link for " +
                                              (folder / "a.txt") + " -> target, errno: File exists"),
                            Error(LOGGER, "DeleteSymbolicLink: Failed to delete the symbolic link " +
                                              (folder / "none") + ", errno: No such file or directory"),
                            Error(LOGGER, "ReadLink: Failed to readlink '" + (folder / "a.txt") +
                                              "' (errno=Invalid argument)")));
}

TEST_F(FileSystemOnEveryKind, TheLongestLinkIsReadWhole) {
    std::string longest;
    while (longest.size() < 4095) {
        longest += longest.size() % 200 == 199 ? '/' : 'x';
    }
    ASSERT_EQ(symlink(longest.c_str(), (folder / "long").c_str()), 0) << strerror(errno);
    const LogCapture log;
    std::string target;
    EXPECT_EQ(FileSystem::ReadLink(folder / "long", target), StatusCode::Ok);
    EXPECT_EQ(target, longest);
}

TEST_F(FileSystemOnEveryKind, ALinkCanBeReadIntoItsOwnPath) {
    const LogCapture log;
    std::string path = folder / "link.txt";
    EXPECT_EQ(FileSystem::ReadLink(path, path), StatusCode::Ok);
    EXPECT_EQ(path, "a.txt");
}

TEST(FileSystem, TheExecutablesNameIsTheBareNameOfThisProgram) {
    const LogCapture log;
    std::string name;
    EXPECT_EQ(FileSystem::GetCurrentExecutableName(name), StatusCode::Ok);
    EXPECT_EQ(name, "utilities-file_system_test");
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Info(LOGGER, "ReadLink: Successful '/proc/self/exe' to '" +
                                     std::filesystem::read_symlink("/proc/self/exe").string() + "'")));
}

// Run by the next test in a copy of this program, which may lose its file before.
TEST(FileSystem, DISABLED_TellsTheExecutablesName) {
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    const std::string act = std::filesystem::exists("act") ? ContentOf("act") : "";
    if (act == "remove") {
        ASSERT_EQ(unlink(self.c_str()), 0);
    } else if (act == "replace") {
        ASSERT_EQ(rename("act", self.c_str()), 0);
    }
    std::string name;
    EXPECT_EQ(FileSystem::GetCurrentExecutableName(name), StatusCode::Ok);
    MakeFile("name", name);
}

TEST(FileSystem, TheExecutablesNameIsTheSameAfterAnUpdateInPlace) {
    SKIP_WHERE_EMULATED("/proc/self/exe is no file that can be copied");
    const struct {
        const char* name;
        const char* act;
    } ROWS[] = {{"tool", ""},           {"tool", "remove"},           {"tool", "replace"},
                {"tool (deleted)", ""}, {"tool (deleted)", "remove"}, {"tool (deleted)", "replace"}};
    for (const auto& row : ROWS) {
        SCOPED_TRACE(std::string(row.name) + " " + row.act);
        const TempFolder folder;
        std::filesystem::copy_file("/proc/self/exe", folder / row.name);
        MakeFile(folder / "act", row.act);
        // Without the record of messages, which each run of this program begins anew.
        const std::string command = "cd '" + folder.Path() + "' && env -u TERN_LOG_COVERAGE './" + row.name +
                                    "' --gtest_also_run_disabled_tests "
                                    "--gtest_filter=FileSystem.DISABLED_TellsTheExecutablesName >output 2>&1";
        EXPECT_EQ(std::system(command.c_str()), 0) << ContentOf(folder / "output");
        EXPECT_EQ(ContentOf(folder / "name"), row.name);
    }
}

TEST(FileSystem, AnExecutableThatCannotBeReadStillCutsTheNameItWasGiven) {
    const LogCapture log;
    const FaultScope scope(fault_readlink);
    fault_readlink.Fail(-1, EACCES, 2);
    std::string name = "old";
    EXPECT_EQ(FileSystem::GetCurrentExecutableName(name), StatusCode::AccessDenied);
    EXPECT_EQ(name, "old");
    name = "/path/old";
    EXPECT_EQ(FileSystem::GetCurrentExecutableName(name), StatusCode::AccessDenied);
    EXPECT_EQ(name, "old");
    const auto message =
        Error(LOGGER, "ReadLink: Failed to readlink '/proc/self/exe' (errno=Permission denied)");
    EXPECT_THAT(log.Entries(), ElementsAre(message, message));
}

TEST(FileSystem, AnExecutableWithoutASeparatorKeepsItsWholeName) {
    const LogCapture log;
    const FaultScope scope(fault_readlink);
    fault_readlink.Replace([](const char*, char* buffer, size_t) {
        buffer[0] = 'p';
        return ssize_t{1};
    });
    std::string name;
    EXPECT_EQ(FileSystem::GetCurrentExecutableName(name), StatusCode::Ok);
    EXPECT_EQ(name, "p");
}

TEST(FileSystem, WrittenContentIsTheWholeContentOfTheFile) {
    const TempFolder folder;
    const LogCapture log;
    const std::string path = folder / "file";
    const std::string content("bytes \0 of\r\nany \xff kind\n", 23);
    EXPECT_EQ(FileSystem::WriteContent(path, std::string(100000, 'x')), StatusCode::Ok);
    EXPECT_EQ(ContentOf(path), std::string(100000, 'x'));
    EXPECT_EQ(FileSystem::WriteContent(path, content), StatusCode::Ok);
    EXPECT_EQ(ContentOf(path), content);
    EXPECT_EQ(FileSystem::WriteContent(path, ""), StatusCode::Ok);
    EXPECT_EQ(ContentOf(path), "");
    const auto message = Info(LOGGER, "WriteContent: Successfully wrote content to file " + path);
    EXPECT_THAT(log.Entries(), ElementsAre(message, message, message));
}

TEST(FileSystem, AWrittenFileIsNewWithTheUsualMode) {
    const TempFolder folder;
    const LogCapture log;
    for (const mode_t mask : {0000U, 0022U, 0077U}) {
        const mode_t former = umask(mask);
        const std::string path = folder / std::to_string(mask);
        EXPECT_EQ(FileSystem::WriteContent(path, "content"), StatusCode::Ok);
        umask(former);
        EXPECT_EQ(ModeOf(path), 0666U & ~mask);
    }
}

TEST(FileSystem, AFileThatCannotBeOpenedForWritingFailsWithATrailingBlankInItsMessage) {
    const TempFolder folder;
    const LogCapture log;
    EXPECT_EQ(FileSystem::WriteContent(folder.Path(), "content"), StatusCode::IoError);
    EXPECT_EQ(FileSystem::WriteContent(folder / "none/file", "content"), StatusCode::NotFound);
    EXPECT_THAT(log.Entries(), ElementsAre(Error(LOGGER, "WriteContent: Unable to write file content to '" +
                                                             folder.Path() + "' (errno=Is a directory) "),
                                           Error(LOGGER, "WriteContent: Unable to write file content to '" +
                                                             (folder / "none/file") +
                                                             "' (errno=No such file or directory) ")));
}

TEST(FileSystem, AFullDiskIsNotNoticedByWritingContent) {
    const LogCapture log;
    EXPECT_EQ(FileSystem::WriteContent("/dev/full", "content"), StatusCode::Ok);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Info(LOGGER, "WriteContent: Successfully wrote content to file /dev/full")));
}

TEST(FileSystem, WholeContentReplacesTheFile) {
    const TempFolder folder;
    const LogCapture log;
    for (const std::string& content : {std::string(100000, 'x'), std::string("short"), std::string()}) {
        EXPECT_EQ(FileSystem::WriteWholeContent(folder / "file", content), StatusCode::Ok);
        EXPECT_EQ(ContentOf(folder / "file"), content);
    }
    const mode_t former = umask(0027);
    EXPECT_EQ(FileSystem::WriteWholeContent(folder / "new", "content"), StatusCode::Ok);
    umask(former);
    EXPECT_EQ(ModeOf(folder / "new"), 0640U);
    EXPECT_EQ(FileSystem::WriteWholeContent("/dev/null", "content"), StatusCode::Ok);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST(FileSystem, WholeContentThatDoesNotArriveIsToldWithTheStatusOfErrno) {
    const TempFolder folder;
    const std::string file = folder / "file";
    const LogCapture log;
    EXPECT_EQ(FileSystem::WriteWholeContent("/dev/full", "content"), StatusCode::IoError);
    EXPECT_EQ(FileSystem::WriteWholeContent(folder / "none/file", "content"), StatusCode::NotFound);
    const FaultScope syncScope(fault_fsync);
    fault_fsync.Fail(-1, EIO);
    EXPECT_EQ(FileSystem::WriteWholeContent(file, "content"), StatusCode::IoError);
    const FaultScope closeScope(fault_close);
    fault_close.Replace([](int fd) {
        fault_close.Real(fd);
        errno = EDQUOT;
        return -1;
    });
    EXPECT_EQ(FileSystem::WriteWholeContent(file, "content"), StatusCode::Failure);
    const auto failed = [](const std::string& path, const std::string& text) {
        return Error(LOGGER, "WriteWholeContent: Failed to write file '" + path + "' (errno=" + text + ")");
    };
    EXPECT_THAT(log.Entries(),
                ElementsAre(failed("/dev/full", "No space left on device"),
                            failed(folder / "none/file", "No such file or directory"),
                            failed(file, "Input/output error"), failed(file, "Disk quota exceeded")));
}

TEST(FileSystem, WholeContentIsWrittenInAsManyCallsAsItTakes) {
    const TempFolder folder;
    const LogCapture log;
    const FaultScope scope(fault_write);
    int calls = 0;
    fault_write.Replace(
        [&](int fd, const void* buffer, size_t size) -> ssize_t {
            if (++calls % 2 == 1) {
                errno = EINTR;
                return -1;
            }
            return fault_write.Real(fd, buffer, std::min<size_t>(size, 3));
        },
        1000);
    EXPECT_EQ(FileSystem::WriteWholeContent(folder / "file", "a content"), StatusCode::Ok);
    EXPECT_EQ(ContentOf(folder / "file"), "a content");
    EXPECT_EQ(calls, 6);
}

TEST(FileSystem, ManyThreadsWorkSideBySide) {
    const TempFolder folder;
    const LogCapture log;
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([&folder, number] {
            const std::string path = folder / std::to_string(number);
            FileSystem fileSystem;
            for (int round = 0; round < 50; ++round) {
                std::set<std::string> files;
                EXPECT_EQ(FileSystem::WriteContent(path, "content"), StatusCode::Ok);
                EXPECT_EQ(fileSystem.ListFiles(folder.Path(), files), StatusCode::Ok);
                EXPECT_EQ(files.count(std::to_string(number)), 1U);
                EXPECT_EQ(FileSystem::CheckFileExist(path), StatusCode::Ok);
                EXPECT_EQ(FileSystem::Rename(path, path + "x"), StatusCode::Ok);
                EXPECT_EQ(FileSystem::DeleteFile(path + "x"), StatusCode::Ok);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}
