// Links, fifos and folders that are put in the way of a copy: it stays in its trees.

#include "utilities/file_system_copy_fixture.h"

namespace {

using namespace tern::test::copies;

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

}  // namespace
