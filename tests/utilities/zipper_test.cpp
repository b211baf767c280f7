#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zip.h>

#include <array>
#include <climits>
#include <filesystem>

#include "utilities/zipper_fixture.h"

namespace mwl::Utilities {
namespace {

// Zip

TEST_F(ZipperTest, ZipWithAnEmptyPathDoesNothingSuccessfully) {
    EXPECT_EQ(Zipper::Zip("", archive, ""), StatusCode::Ok);
    EXPECT_EQ(Zipper::Zip(source, "", ""), StatusCode::Ok);
    EXPECT_THAT(log.Entries(), ElementsAre(Error("Zip: Path to folder to zip () or zip name (" + archive +
                                                 ") is empty, so can't proccess zip"),
                                           Error("Zip: Path to folder to zip (" + source +
                                                 ") or zip name () is empty, so can't proccess zip")));
    EXPECT_THAT(ListFolder(work.Path()), ElementsAre("source"));
}

TEST_F(ZipperTest, ZipTakesTheRegularFilesOfOneLevelOnly) {
    AddSource("a.txt", "content of a");
    std::filesystem::create_directory(source + "/s");
    AddSource("s/b.txt", "content of b");
    std::filesystem::create_symlink("a.txt", source + "/link");
    EXPECT_EQ(Zip(), StatusCode::Ok);
    EXPECT_THAT(ListArchive(archive), ElementsAre(ArchiveEntry{"a.txt", ZIP_EM_NONE}));
    EXPECT_EQ(log.Entries().back(), Successful());
    EXPECT_THAT(log.Entries(),
                UnorderedElementsAre(Info("ZipContent: Content . in directory is not a file, type = 4"),
                                     Info("ZipContent: Content .. in directory is not a file, type = 4"),
                                     Info("ZipContent: Content s in directory is not a file, type = 4"),
                                     Info("ZipContent: Content link in directory is not a file, type = 10"),
                                     Successful()));
}

TEST_F(ZipperTest, ZipReplacesTheArchiveThatIsThere) {
    AddThreeSources();
    EXPECT_EQ(Zip(), StatusCode::Ok);
    std::filesystem::remove(source + "/1");
    std::filesystem::remove(source + "/2");
    EXPECT_EQ(Zip(), StatusCode::Ok);
    EXPECT_THAT(NamesIn(archive), ElementsAre("3"));
}

TEST_F(ZipperTest, ZipOfAFolderWithoutFilesLeavesNoArchive) {
    WriteFile(archive, MakeRawZip({{"old", "content"}}));
    EXPECT_EQ(Zip(), StatusCode::Ok);
    EXPECT_THAT(Messages(), ElementsAre(Successful()));
    EXPECT_THAT(ListFolder(work.Path()), ElementsAre("source"));
}

TEST_F(ZipperTest, ZipWithAPasswordEncryptsEveryEntry) {
    AddThreeSources();
    EXPECT_EQ(Zip("password"), StatusCode::Ok);
    EXPECT_THAT(ListArchive(archive),
                UnorderedElementsAre(ArchiveEntry{"1", ZIP_EM_AES_128}, ArchiveEntry{"2", ZIP_EM_AES_128},
                                     ArchiveEntry{"3", ZIP_EM_AES_128}));
    EXPECT_THAT(ReadFile(archive), Not(HasSubstr(SECRET)));
    for (const LogEntry& entry : log.Entries()) {
        EXPECT_THAT(entry.text, Not(HasSubstr("password")));
    }
    EXPECT_EQ(Unzip("password"), StatusCode::Ok);
    EXPECT_EQ(Extracted("2"), SECRET + "2");
}

TEST_F(ZipperTest, ContentOfEveryKindComesBackUnchanged) {
    std::string noise;
    for (std::uint32_t i = 0, x = 1; i < 3000000; ++i, x = x * 1664525 + 1013904223) {
        noise.push_back(static_cast<char>(x >> 24));
    }
    AddSource("noise", noise);
    AddSource("zeros", std::string(3000000, '\0'));
    AddSource("one byte", "x");
    AddSource("\xC3\xA4.txt", "name beyond ASCII");
    for (const char* const password : {"", "p", "a longer password, with \xC3\xA4 in it"}) {
        SCOPED_TRACE(password);
        EXPECT_EQ(Zip(password), StatusCode::Ok);
        EXPECT_EQ(Unzip(password), StatusCode::Ok);
        EXPECT_THAT(ListFolder(target), SizeIs(4));
        for (const std::string& name : ListFolder(source)) {
            EXPECT_TRUE(Extracted(name) == ReadFile(source + "/" + name)) << name;
        }
        std::filesystem::remove_all(target);
    }
}

TEST_F(ZipperTest, ArchiveThatCannotBeOpenedForWritingIsReported) {
    struct Row {
        int code;
        int error;
        StatusCode status;
        const char* text;
    };
    const Row rows[] = {{ZIP_ER_OPEN, EACCES, StatusCode::Failure, "Can't open file: Permission denied"},
                        {ZIP_ER_MEMORY, 0, StatusCode::OutOfMemory, "Malloc failure"},
                        {ZIP_ER_READ, EIO, StatusCode::IoError, "Read error: Input/output error"},
                        {ZIP_ER_NOZIP, 0, StatusCode::InvalidArgument, "Not a zip archive"}};
    for (const Row& row : rows) {
        log.Clear();
        const FaultScope scope(fault_zip_open);
        int openFlags = -1;
        fault_zip_open.Replace([&](const char*, int flags, int* error) {
            openFlags = flags;
            *error = row.code;
            errno = row.error;
            return nullptr;
        });
        EXPECT_EQ(Zip(), row.status);
        EXPECT_EQ(openFlags, ZIP_CREATE | ZIP_TRUNCATE);
        EXPECT_THAT(log.Entries(),
                    ElementsAre(Error("Zip: Failed to create zip " + archive + ", error = " + row.text)));
    }
}

TEST_F(ZipperTest, ZipOntoAFolderIsRefused) {
    AddThreeSources();
    EXPECT_EQ(Zipper::Zip(source, source, ""), StatusCode::Failure);
    EXPECT_THAT(Messages(), ElementsAre(Error("Zip: Failed to create zip " + source +
                                              ", error = Operation not supported")));
    EXPECT_THAT(ListFolder(source), SizeIs(3));
}

TEST_F(ZipperTest, ZipOfAMissingFolderFailsButClosesTheArchive) {
    std::filesystem::remove(source);
    EXPECT_EQ(Zip(), StatusCode::Failure);
    EXPECT_THAT(log.Entries(), ElementsAre(Error("Zip: Fail to open directory: " + source), Successful()));
    EXPECT_THAT(ListFolder(work.Path()), IsEmpty());
}

TEST_F(ZipperTest, FileWithoutASourceIsLeftOutAndTheWalkGoesOn) {
    AddThreeSources();
    const FaultScope scope(fault_zip_source_file);
    fault_zip_source_file.Replace(FailWith(static_cast<zip_source_t*>(nullptr), ZIP_ER_MEMORY), 1, 1);
    EXPECT_EQ(Zip(), StatusCode::OutOfMemory);
    EXPECT_THAT(Messages(),
                ElementsAre(Error("Zip: Failed to add file to zip: Malloc failure"), Successful()));
    EXPECT_THAT(NamesIn(archive), SizeIs(2));
}

TEST_F(ZipperTest, FileThatCannotBeAddedEndsTheWalk) {
    AddThreeSources();
    const FaultScope scope(fault_zip_file_add);
    zip_flags_t addFlags = 0;
    fault_zip_file_add.Replace(
        [&](zip_t* zip, const char*, zip_source_t*, zip_flags_t flags) {
            addFlags = flags;
            zip_error_set(zip_get_error(zip), ZIP_ER_ENCRNOTSUPP, 0);
            return -1;
        },
        1, 1);
    EXPECT_EQ(Zip(), StatusCode::NotSupported);
    EXPECT_EQ(fault_zip_file_add.Calls(), 2);
    EXPECT_EQ(addFlags, ZIP_FL_ENC_UTF_8);
    EXPECT_THAT(
        Messages(),
        ElementsAre(Error("Zip: Failed to add file to zip: Encryption method not supported"), Successful()));
    EXPECT_THAT(NamesIn(archive), SizeIs(1));
}

TEST_F(ZipperTest, NameThatIsNotUtf8EndsTheWalk) {
    AddSource("\xFF", "content");
    EXPECT_EQ(Zip(), StatusCode::InvalidArgument);
    EXPECT_THAT(Messages(),
                ElementsAre(Error("Zip: Failed to add file to zip: Invalid argument"), Successful()));
    EXPECT_THAT(ListFolder(work.Path()), ElementsAre("source"));
}

TEST_F(ZipperTest, FileThatCannotBeEncryptedIsNotWrittenInClear) {
    AddThreeSources();
    const FaultScope scope(fault_zip_file_set_encryption);
    fault_zip_file_set_encryption.Replace(FailWith(-1, ZIP_ER_MEMORY), 1, 1);
    EXPECT_EQ(Zip("password"), StatusCode::OutOfMemory);
    EXPECT_EQ(fault_zip_file_set_encryption.Calls(), 2);
    EXPECT_THAT(Messages(),
                ElementsAre(Error("Zip: Failed to encrypt file to zip: Malloc failure"), Successful()));
    EXPECT_THAT(ListArchive(archive), SizeIs(1));
    EXPECT_EQ(ListArchive(archive).front().encryption, ZIP_EM_AES_128);
    EXPECT_THAT(ReadFile(archive), Not(HasSubstr(SECRET)));
}

TEST_F(ZipperTest, ArchiveThatKeepsAFileInClearIsDiscarded) {
    AddThreeSources();
    const std::string former = MakeRawZip({{"old", "content"}});
    WriteFile(archive, former);
    const FaultScope encryptionScope(fault_zip_file_set_encryption);
    fault_zip_file_set_encryption.Replace(FailWith(-1, ZIP_ER_MEMORY), 1, 1);
    const FaultScope deleteScope(fault_zip_delete);
    fault_zip_delete.Fail(-1);
    EXPECT_EQ(Zip("password"), StatusCode::Failure);
    EXPECT_THAT(Messages(), ElementsAre(Error("Zip: Failed to encrypt file to zip: Malloc failure"),
                                        Info("Zip: Zip creation finish with: Unknown error -1")));
    EXPECT_TRUE(ReadFile(archive) == former);
}

TEST_F(ZipperTest, EntriesAreEncryptedWithTheMethodAndPasswordGiven) {
    AddSource("a", "content");
    const FaultScope scope(fault_zip_file_set_encryption);
    fault_zip_file_set_encryption.Replace(
        [](zip_t* zip, zip_uint64_t index, zip_uint16_t method, const char* password) {
            EXPECT_EQ(method, 257);
            EXPECT_STREQ(password, "pass%sword");
            return fault_zip_file_set_encryption.Real(zip, index, method, password);
        });
    EXPECT_EQ(Zip("pass%sword"), StatusCode::Ok);
    EXPECT_EQ(fault_zip_file_set_encryption.Calls(), 1);
    EXPECT_EQ(Zip(), StatusCode::Ok);
    EXPECT_EQ(fault_zip_file_set_encryption.Calls(), 1);
}

TEST_F(ZipperTest, FolderThatCannotBeClosedIsOnlyReported) {
    AddThreeSources();
    const FaultScope scope(fault_closedir);
    fault_closedir.Replace([](DIR* stream) {
        fault_closedir.Real(stream);
        errno = EIO;
        return -1;
    });
    EXPECT_EQ(Zip(), StatusCode::Ok);
    EXPECT_THAT(Messages(), ElementsAre(Error("Zip: Failed to close directory, errno = Input/output error"),
                                        Successful()));
}

TEST_F(ZipperTest, FolderThatCannotBeReadToItsEndIsReported) {
    AddThreeSources();
    const FaultScope scope(fault_readdir64);
    fault_readdir64.Fail(nullptr, EIO, 1, 4);
    EXPECT_EQ(Zip(), StatusCode::IoError);
    EXPECT_THAT(Messages(),
                ElementsAre(Error("Zip: Failed to read directory " + source + ", errno = Input/output error"),
                            Successful()));
    EXPECT_THAT(ListArchive(archive), Not(IsEmpty()));
}

TEST_F(ZipperTest, FileThatVanishesBeforeItIsReadFailsTheWholeAndKeepsTheFormerArchive) {
    AddThreeSources();
    const std::string former = MakeRawZip({{"old", "content"}});
    WriteFile(archive, former);
    const FaultScope scope(fault_closedir);
    fault_closedir.Replace([&](DIR* stream) {
        std::filesystem::remove(source + "/2");
        return fault_closedir.Real(stream);
    });
    EXPECT_EQ(Zip("password"), StatusCode::Failure);
    EXPECT_THAT(Messages(), ElementsAre(Info("Zip: Zip creation finish with: Unknown error -1")));
    EXPECT_TRUE(ReadFile(archive) == former);
}

TEST_F(ZipperTest, ZipIntoAMissingFolderFailsAtTheEnd) {
    AddThreeSources();
    EXPECT_EQ(Zipper::Zip(source, work / "none/a.zip", ""), StatusCode::Failure);
    EXPECT_THAT(Messages(), ElementsAre(Info("Zip: Zip creation finish with: Unknown error -1")));
}

TEST_F(ZipperTest, UnexpectedResultOfClosingIsOnlyTold) {
    AddThreeSources();
    const FaultScope scope(fault_zip_close);
    fault_zip_close.Fail(5);
    EXPECT_EQ(Zip(), StatusCode::Ok);
    EXPECT_THAT(Messages(), ElementsAre(Info("Zip: Unexpected zip error code: 5")));
}

TEST_F(ZipperTest, ArchiveInsideTheZippedFolderIsNotItsOwnEntryAtFirst) {
    AddSource("a", "content");
    EXPECT_EQ(Zipper::Zip(source, source + "/own.zip", ""), StatusCode::Ok);
    EXPECT_THAT(NamesIn(source + "/own.zip"), ElementsAre("a"));
    EXPECT_EQ(Zipper::Zip(source, source + "/own.zip", ""), StatusCode::Ok);
    EXPECT_THAT(NamesIn(source + "/own.zip"), UnorderedElementsAre("a", "own.zip"));
}

TEST_F(ZipperTest, ArchivesCanBeHandledOnManyThreads) {
    AddThreeSources();
    std::filesystem::create_directory(target);
    std::array<std::thread, 4> threads;
    for (std::size_t i = 0; i < threads.size(); ++i) {
        threads[i] = std::thread([&, i] {
            const std::string own = target + "/" + std::to_string(i);
            for (int round = 0; round < 5; ++round) {
                EXPECT_EQ(Zipper::Zip(source, own + ".zip", own), StatusCode::Ok);
                EXPECT_EQ(Zipper::Unzip(own + ".zip", own, own), StatusCode::Ok);
                EXPECT_EQ(ReadFile(own + "/1"), SECRET + "1");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// Status codes

TEST(Zipper, EveryErrorCodeOfLibzipHasItsStatus) {
    const std::map<int, StatusCode> mapped = {{ZIP_ER_RENAME, StatusCode::IoError},
                                              {ZIP_ER_SEEK, StatusCode::IoError},
                                              {ZIP_ER_READ, StatusCode::IoError},
                                              {ZIP_ER_WRITE, StatusCode::IoError},
                                              {ZIP_ER_TMPOPEN, StatusCode::IoError},
                                              {ZIP_ER_NOENT, StatusCode::InvalidArgument},
                                              {ZIP_ER_INVAL, StatusCode::InvalidArgument},
                                              {ZIP_ER_NOZIP, StatusCode::InvalidArgument},
                                              {ZIP_ER_MEMORY, StatusCode::OutOfMemory},
                                              {ZIP_ER_COMPNOTSUPP, StatusCode::NotSupported},
                                              {ZIP_ER_ENCRNOTSUPP, StatusCode::NotSupported},
                                              {ZIP_ER_NOPASSWD, StatusCode::NotPermitted},
                                              {ZIP_ER_WRONGPASSWD, StatusCode::AccessDenied}};
    for (int code = -2; code <= 40; ++code) {
        const auto found = mapped.find(code);
        EXPECT_EQ(Zipper::GetStatusZipError(code),
                  found == mapped.end() ? StatusCode::Failure : found->second)
            << code;
    }
    EXPECT_EQ(Zipper::GetStatusZipError(INT_MIN), StatusCode::Failure);
    EXPECT_EQ(Zipper::GetStatusZipError(INT_MAX), StatusCode::Failure);
}

}  // namespace
}  // namespace mwl::Utilities
