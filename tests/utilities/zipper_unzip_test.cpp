// Unzip: what archives may hold, and what is made of it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <array>
#include <cstdio>
#include <filesystem>

#include "utilities/zipper_fixture.h"

namespace mwl::Utilities {
namespace {

// Unzip

TEST_F(ZipperTest, UnzipWithAnEmptyPathFails) {
    EXPECT_EQ(Zipper::Unzip("", target, ""), StatusCode::Failure);
    EXPECT_EQ(Zipper::Unzip(archive, "", ""), StatusCode::Failure);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error("Unzip: Path to zip file () or to folder to extract (" + target +
                                  ") is empty, so can't proccess unzip"),
                            Error("Unzip: Path to zip file (" + archive +
                                  ") or to folder to extract () is empty, so can't proccess unzip")));
    EXPECT_THAT(ListFolder(work.Path()), ElementsAre("source"));
}

TEST_F(ZipperTest, UnzipIntoAFolderThatCannotBeMadeFails) {
    WriteFile(archive, MakeRawZip({{"a", "content"}}));
    EXPECT_EQ(Zipper::Unzip(archive, work / "none/target", ""), StatusCode::NotFound);
    EXPECT_THAT(log.Entries(LOGGER),
                ElementsAre(Error("Unzip: Failed to create content folder " + (work / "none/target"))));
}

TEST_F(ZipperTest, UnzipOfWhatIsNoArchiveFails) {
    EXPECT_EQ(Unzip(), StatusCode::InvalidArgument);
    EXPECT_EQ(UnzipBytes(""), StatusCode::InvalidArgument);
    EXPECT_EQ(UnzipBytes("no archive at all"), StatusCode::InvalidArgument);
    const std::string start = "Unzip: Failed to open zip " + archive + ", error = ";
    EXPECT_THAT(log.Entries(LOGGER),
                ElementsAre(Error(start + "No such file"), Error(start + "Not a zip archive"),
                            Error(start + "Not a zip archive")));
}

TEST_F(ZipperTest, ArchiveIsOpenedForUnzippingWithoutFlags) {
    const FaultScope scope(fault_zip_open);
    int openFlags = -1;
    fault_zip_open.Replace([&](const char* path, int flags, int* error) {
        openFlags = flags;
        return fault_zip_open.Real(path, flags, error);
    });
    EXPECT_EQ(UnzipRaw({{"a", "content"}}), StatusCode::Ok);
    EXPECT_EQ(openFlags, 0);
}

TEST_F(ZipperTest, UnzipOfAnArchiveWithoutEntriesMakesTheFolderOnly) {
    EXPECT_EQ(UnzipRaw({}), StatusCode::Ok);
    EXPECT_THAT(log.Entries(LOGGER), IsEmpty());
    EXPECT_THAT(ListFolder(target), IsEmpty());
    struct stat status {};
    ASSERT_EQ(stat(target.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | 0775));
}

TEST_F(ZipperTest, NumberOfEntriesThatCannotBeToldIsReported) {
    const FaultScope scope(fault_zip_get_num_entries);
    fault_zip_get_num_entries.Fail(-1);
    EXPECT_EQ(UnzipRaw({{"a", "content"}}), StatusCode::NotFound);
    EXPECT_THAT(log.Entries(LOGGER), ElementsAre(Error("Unzip: No files found in " + archive)));
}

TEST_F(ZipperTest, EntryThatCannotBeDescribedIsSteppedOver) {
    const FaultScope scope(fault_zip_stat_index);
    fault_zip_stat_index.Fail(-1);
    EXPECT_EQ(UnzipRaw({{"a", "content"}, {"b", "more"}}), StatusCode::Ok);
    EXPECT_THAT(log.Entries(LOGGER), IsEmpty());
    EXPECT_THAT(ListFolder(target), ElementsAre("b"));
}

TEST_F(ZipperTest, PasswordDecidesOverAnEncryptedArchive) {
    EXPECT_EQ(UnzipBytes(EncryptedZip(), "wrong"), StatusCode::AccessDenied);
    EXPECT_EQ(Unzip(""), StatusCode::NotPermitted);
    EXPECT_THAT(ListFolder(target), IsEmpty());
    EXPECT_EQ(Unzip("secret"), StatusCode::Ok);
    EXPECT_EQ(Extracted("a.txt"), SECRET);
    EXPECT_THAT(log.Entries(LOGGER),
                ElementsAre(Error("Unzip: Failed to open zip file a.txt, error = Wrong password provided"),
                            FailedWith("AccessDenied"),
                            Error("Unzip: Failed to open zip file a.txt, error = No password provided"),
                            FailedWith("NotPermitted")));
}

TEST_F(ZipperTest, PasswordIsIgnoredForEntriesInClear) {
    EXPECT_EQ(UnzipBytes(MakeRawZip({{"a", "content"}}), "password"), StatusCode::Ok);
    EXPECT_EQ(Extracted("a"), "content");
}

TEST_F(ZipperTest, UnsupportedMethodIsReported) {
    EXPECT_EQ(UnzipRaw({{"a", "content", 77}}), StatusCode::NotSupported);
    EXPECT_THAT(
        log.Entries(LOGGER),
        ElementsAre(Error("Unzip: Failed to open zip file a, error = Compression method not supported"),
                    FailedWith("NotSupported")));
    EXPECT_THAT(ListFolder(target), IsEmpty());
}

/// libzip 1.7 loses memory when it is asked to open such an entry; found by the fuzzer.
TEST_F(ZipperTest, UnsupportedEncryptionIsReported) {
    constexpr std::uint16_t STRONG_ENCRYPTION = 0x41;
    const std::string bytes = MakeRawZip({{"a", std::string(60, 'x'), 0, -1, -1, STRONG_ENCRYPTION}});
    EXPECT_EQ(UnzipBytes(bytes, "secret"), StatusCode::NotSupported);
    EXPECT_EQ(UnzipBytes(bytes), StatusCode::NotPermitted);
    EXPECT_THAT(
        log.Entries(LOGGER),
        ElementsAre(Error("Unzip: Failed to open zip file a, error = Encryption method not supported"),
                    FailedWith("NotSupported"),
                    Error("Unzip: Failed to open zip file a, error = No password provided"),
                    FailedWith("NotPermitted")));
    EXPECT_THAT(ListFolder(target), IsEmpty());
}

TEST_F(ZipperTest, EntryThatCannotBeOpenedEndsTheExtraction) {
    const FaultScope scope(fault_zip_fopen_index);
    fault_zip_fopen_index.Replace(FailWith(static_cast<zip_file_t*>(nullptr), ZIP_ER_SEEK), 1, 1);
    EXPECT_EQ(UnzipRaw({{"a", "content"}, {"b", "more"}, {"c", "most"}}), StatusCode::IoError);
    EXPECT_THAT(log.Entries(LOGGER),
                ElementsAre(Error("Unzip: Failed to open zip file b, error = Seek error: Success"),
                            FailedWith("IoError")));
    EXPECT_THAT(ListFolder(target), ElementsAre("a"));
}

TEST_F(ZipperTest, ClimbingNamesEndTheExtraction) {
    for (const char* const name : {"../x.txt", "a/../../x.txt", "x/../y", "..../x", "../", "/../x"}) {
        SCOPED_TRACE(name);
        log.Clear();
        EXPECT_EQ(UnzipRaw({{"first", "1"}, {name, "hostile"}, {"last", "3"}}), StatusCode::InvalidArgument);
        EXPECT_THAT(log.Entries(LOGGER),
                    ElementsAre(Error(std::string("Unzip: Zip file has a malicious path ") + name),
                                FailedWith("InvalidArgument")));
        EXPECT_THAT(ListFolder(target), ElementsAre("first"));
        EXPECT_THAT(ListFolder(work.Path()), ElementsAre("a.zip", "source", "target"));
    }
    EXPECT_EQ(Zipper::RELATIVE_PATH_STRING, "../");
}

TEST_F(ZipperTest, NamesAreAppendedToTheFolder) {
    struct Row {
        const char* name;
        StatusCode status;
        const char* error;
    };
    const Row rows[] = {{"/absolute.txt", StatusCode::Ok, ""},
                        {"d/f.txt", StatusCode::NotFound, "No such file or directory"},
                        {"/etc/passwd", StatusCode::NotFound, "No such file or directory"},
                        {"..", StatusCode::IoError, "Is a directory"},
                        {"", StatusCode::IoError, "Is a directory"},
                        {"there/", StatusCode::IoError, "Is a directory"},
                        {"new/", StatusCode::IoError, "Is a directory"},
                        {"there/f.txt", StatusCode::Ok, ""},
                        {"..\\x", StatusCode::Ok, ""}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        log.Clear();
        std::filesystem::create_directories(target + "/there");
        const std::string path = target + "/" + row.name;
        EXPECT_EQ(UnzipRaw({{row.name, "content"}, {"last", "3"}}), row.status);
        if (row.status == StatusCode::Ok) {
            EXPECT_THAT(log.Entries(LOGGER), IsEmpty());
            EXPECT_EQ(ReadFile(path), "content");
        } else {
            EXPECT_THAT(log.Entries(LOGGER), ElementsAre(Error("Unzip: Failed to open destination file " +
                                                               path + ", errno = " + row.error),
                                                         FailedWith(ConvertStatusCodeToString(row.status))));
            EXPECT_THAT(ListFolder(target), ElementsAre("there"));
        }
        std::filesystem::remove_all(target);
    }
}

TEST_F(ZipperTest, DamagedEntryFailsAndWritesNoFile) {
    std::string wrongCode = EncryptedZip();
    wrongCode[AUTHENTICATION_CODE_END - 1] = static_cast<char>(wrongCode[AUTHENTICATION_CODE_END - 1] ^ 1);
    std::string wrongContent = EncryptedZip();
    wrongContent[AUTHENTICATION_CODE_END - 11] =
        static_cast<char>(wrongContent[AUTHENTICATION_CODE_END - 11] ^ 1);
    std::string longer = EncryptedZip();
    longer[ENCRYPTED_DIRECTORY_AT + SIZE_IN_DIRECTORY] = 100;
    std::string shorter = EncryptedZip();
    shorter[ENCRYPTED_DIRECTORY_AT + SIZE_IN_DIRECTORY] = 24;
    struct Row {
        const char* about;
        std::string bytes;
    };
    const Row rows[] = {
        {"encrypted, shorter than it claims", longer},
        {"encrypted, longer than it claims", shorter},
        {"wrong checksum of deflated data",
         MakeRawZip({{"a.txt", std::string("\x4B\x4C\x4A\x06\0", 5), 8, 3, 1}})},
        {"wrong checksum", MakeRawZip({{"a.txt", "content", 0, -1, 1}, {"b", "more"}})},
        {"shorter than it claims", MakeRawZip({{"a.txt", "content", 0, 100}, {"b", "more"}})},
        {"shorter than it claims, by 256 MiB", MakeRawZip({{"a.txt", "content", 0, 0x10000000}})},
        {"longer than it claims", MakeRawZip({{"a.txt", "content", 0, 3}, {"b", "more"}})},
        {"no deflated data", MakeRawZip({{"a.txt", "\xFF\xFF\xFF", 8}, {"b", "more"}})},
        {"deflated data cut short", MakeRawZip({{"a.txt", "\x4B\x4C", 8, 3, 0x352441C2}, {"b", "more"}})},
        {"wrong authentication code", wrongCode},
        {"encrypted content changed", wrongContent},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.about);
        log.Clear();
        EXPECT_EQ(UnzipBytes(row.bytes, "secret"), StatusCode::Failure);
        // libzip repeats the error of the read when the entry is closed.
        EXPECT_THAT(log.Entries(LOGGER),
                    ElementsAre(Error("Unzip: Failed to read file a.txt"),
                                Error("Unzip: Failed to close file a.txt"), FailedWith("Failure")));
        EXPECT_THAT(ListFolder(target), IsEmpty());
    }
}

TEST_F(ZipperTest, EntryThatClaimsMoreThanMemoryIsRefused) {
    EXPECT_EQ(UnzipRaw({{"first", "1"}, {"huge", "content", 0, 1LL << 62}, {"last", "3"}}),
              StatusCode::OutOfMemory);
    EXPECT_THAT(log.Entries(LOGGER),
                ElementsAre(Error("Unzip: Failed to read file huge"), FailedWith("OutOfMemory")));
    EXPECT_THAT(ListFolder(target), ElementsAre("first"));
}

TEST_F(ZipperTest, ShortEntryNeverCarriesOldMemoryIntoTheFile) {
    constexpr std::size_t CLAIMED = 200;
    WriteFile(archive, MakeRawZip({{"a", std::string(CLAIMED, 'c')}}));
    const FaultScope scope(fault_zip_fread);
    fault_zip_fread.Replace(
        [](zip_file_t* entry, void* buffer, zip_uint64_t) { return fault_zip_fread.Real(entry, buffer, 7); });
    for (int i = 0; i < 8; ++i) {
        std::array<std::unique_ptr<std::string>, 16> used;
        for (auto& block : used) {
            block = std::make_unique<std::string>(CLAIMED - 1, 'X');
        }
    }
    EXPECT_EQ(Unzip(), StatusCode::Ok);
    EXPECT_EQ(Extracted("a"), "ccccccc" + std::string(CLAIMED - 7, '\0'));
}

/// The memory is the same for all entries.
TEST_F(ZipperTest, ShortEntryNeverCarriesAnotherOneIntoTheFile) {
    const std::string first(300, 'a');
    const std::string second(200, 'b');
    WriteFile(archive, MakeRawZip({{"a", first}, {"b", second}, {"c", first}}));
    const FaultScope scope(fault_zip_fread);
    fault_zip_fread.Replace(
        [](zip_file_t* entry, void* buffer, zip_uint64_t size) {
            return fault_zip_fread.Real(entry, buffer, size == 200 ? 7 : size);
        },
        100);
    EXPECT_EQ(Unzip(), StatusCode::Ok);
    EXPECT_EQ(Extracted("a"), first);
    EXPECT_EQ(Extracted("b"), "bbbbbbb" + std::string(193, '\0'));
    EXPECT_EQ(Extracted("c"), first);
}

/// As libzip 1.11 reads one without a checksum.
TEST_F(ZipperTest, EncryptedEntryThatEndsEarlyWithoutAnErrorIsDamaged) {
    WriteFile(archive, EncryptedZip());
    const FaultScope scope(fault_zip_fread);
    int reads = 0;
    fault_zip_fread.Replace(
        [&](zip_file_t* entry, void* buffer, zip_uint64_t) {
            return ++reads == 1 ? fault_zip_fread.Real(entry, buffer, 7) : 0;
        },
        2);
    EXPECT_EQ(Unzip("secret"), StatusCode::Failure);
    EXPECT_THAT(log.Entries(LOGGER),
                ElementsAre(Error("Unzip: Failed to read file a.txt"),
                            Error("Unzip: Failed to close file a.txt"), FailedWith("Failure")));
    EXPECT_THAT(ListFolder(target), IsEmpty());
}

/// libzip 1.7 does not look at the authentication code of a compressed entry by itself.
TEST_F(ZipperTest, AuthenticationCodeOfACompressedEntryIsCompared) {
    AddSource("a.txt", std::string(100000, 'l'));
    ASSERT_EQ(Zip("secret"), StatusCode::Ok);
    const std::string whole = ReadFile(archive);
    for (const bool hasChecksum : {true, false}) {
        SCOPED_TRACE(hasChecksum);
        std::string bytes = whole;
        const std::size_t directoryAt = bytes.find("PK\1\2");
        ASSERT_LT(directoryAt, bytes.size());
        if (!hasChecksum) {
            bytes.replace(14, 4, 4, '\0');
            bytes.replace(directoryAt + 16, 4, 4, '\0');
        }
        EXPECT_EQ(UnzipBytes(bytes, "secret"), StatusCode::Ok);
        EXPECT_TRUE(Extracted("a.txt") == ReadFile(source + "/a.txt"));
        std::filesystem::remove(target + "/a.txt");

        bytes[directoryAt - 1] = static_cast<char>(bytes[directoryAt - 1] ^ 1);
        log.Clear();
        EXPECT_EQ(UnzipBytes(bytes, "secret"), StatusCode::Failure);
        EXPECT_THAT(log.Entries(LOGGER),
                    ElementsAre(Error("Unzip: Failed to read file a.txt"),
                                Error("Unzip: Failed to close file a.txt"), FailedWith("Failure")));
        EXPECT_THAT(ListFolder(target), IsEmpty());
    }
}

TEST_F(ZipperTest, AuthenticationThatCannotBeDoneCountsAsWrong) {
    WriteFile(archive, EncryptedZipWithWrongChecksum());
    const std::vector<LogEntry> expected = {Error("Unzip: Failed to read file a.txt"),
                                            Error("Unzip: Failed to close file a.txt"),
                                            FailedWith("Failure")};
    const FaultScope openScope(fault_zip_fopen_index_encrypted);
    const FaultScope rawScope(fault_zip_fopen_index);
    const FaultScope sourceScope(fault_zip_source_buffer_fragment_create);
    const FaultScope archiveScope(fault_zip_open_from_source);
    const FaultScope readScope(fault_zip_fread);
    const std::function<void()> provocations[] = {
        [] {
            const auto failToDecrypt = [](zip_t* zip, zip_uint64_t index, zip_flags_t flags,
                                          const char* password) {
                return flags == ZIP_FL_COMPRESSED
                           ? nullptr
                           : fault_zip_fopen_index_encrypted.Real(zip, index, flags, password);
            };
            fault_zip_fopen_index_encrypted.Replace(failToDecrypt, 10);
        },
        [] { fault_zip_fopen_index.Fail(nullptr); },
        [] {
            const auto failToReadEncrypted = [](zip_file_t* entry, void* buffer, zip_uint64_t size) {
                return size == ENCRYPTED_SIZE ? -1 : fault_zip_fread.Real(entry, buffer, size);
            };
            fault_zip_fread.Replace(failToReadEncrypted, 10);
        },
        [] { fault_zip_source_buffer_fragment_create.Fail(nullptr); },
        [] { fault_zip_open_from_source.Fail(nullptr, 0, 1, 1); },  // zip_open is one, too
    };
    for (const auto& provoke : provocations) {
        log.Clear();
        provoke();
        EXPECT_EQ(Unzip("secret"), StatusCode::Failure);
        EXPECT_EQ(log.Entries(LOGGER), expected);
        EXPECT_THAT(ListFolder(target), IsEmpty());
        fault_zip_fopen_index_encrypted.Reset();
        fault_zip_open_from_source.Reset();
        fault_zip_fread.Reset();
    }
    EXPECT_EQ(Unzip("secret"), StatusCode::Ok);
}

TEST_F(ZipperTest, EveryTruncationIsRefusedOrHarmless) {
    const std::string whole = MakeRawZip({{"a", "content of a"}, {"b", "content of b"}});
    for (std::size_t size = 0; size < whole.size(); ++size) {
        SCOPED_TRACE(size);
        EXPECT_NE(UnzipBytes(whole.substr(0, size)), StatusCode::Ok);
        EXPECT_THAT(ListFolder(target), IsEmpty());
    }
    const std::string encrypted = EncryptedZip();
    for (std::size_t size = 0; size < encrypted.size(); ++size) {
        SCOPED_TRACE(size);
        EXPECT_NE(UnzipBytes(encrypted.substr(0, size), "secret"), StatusCode::Ok);
        EXPECT_THAT(ListFolder(target), IsEmpty());
    }
}

TEST_F(ZipperTest, ReadThatFailsWithoutAnErrorKeptIsAnInvalidArgument) {
    for (const int skipped : {0, 1}) {
        SCOPED_TRACE(skipped);
        log.Clear();
        const FaultScope scope(fault_zip_fread);
        fault_zip_fread.Fail(-1, 0, 1, skipped);
        EXPECT_EQ(UnzipRaw({{"a", "content"}, {"b", "more"}}), StatusCode::InvalidArgument);
        EXPECT_THAT(log.Entries(LOGGER),
                    ElementsAre(Error("Unzip: Failed to read file a"), FailedWith("InvalidArgument")));
        EXPECT_THAT(ListFolder(target), IsEmpty());
    }
}

TEST_F(ZipperTest, EntryThatCannotBeClosedFails) {
    for (const bool readFails : {false, true}) {
        SCOPED_TRACE(readFails);
        log.Clear();
        const FaultScope readScope(fault_zip_fread);
        fault_zip_fread.Fail(-1, 0, readFails ? 1 : 0);
        const FaultScope closeScope(fault_zip_fclose);
        fault_zip_fclose.Replace([](zip_file_t* entry) {
            fault_zip_fclose.Real(entry);
            return ZIP_ER_CLOSE;
        });
        EXPECT_EQ(UnzipRaw({{"a", "content"}, {"b", "more"}}), StatusCode::Failure);
        std::vector<LogEntry> expected = {Error("Unzip: Failed to close file a"), FailedWith("Failure")};
        if (readFails) {
            expected.insert(expected.begin(), Error("Unzip: Failed to read file a"));
        }
        EXPECT_EQ(log.Entries(LOGGER), expected);
        EXPECT_THAT(ListFolder(target), IsEmpty());
    }
}

TEST_F(ZipperTest, FilesAreOpenedWithoutTruncationAndNotInherited) {
    const FaultScope scope(fault_open64);
    fault_open64.Replace([&](const char* path, int flags, mode_t mode) {
        EXPECT_EQ(path, target + "/a");
        EXPECT_EQ(flags & ~O_LARGEFILE, O_WRONLY | O_CREAT | O_CLOEXEC);
        EXPECT_EQ(mode, 0744U);
        return fault_open64.Real(path, flags, mode);
    });
    EXPECT_EQ(UnzipRaw({{"a", "content"}}), StatusCode::Ok);
    EXPECT_EQ(fault_open64.Calls(), 1);
}

TEST_F(ZipperTest, FileThatCannotBeOpenedEndsTheExtraction) {
    const FaultScope scope(fault_open64);
    fault_open64.Fail(-1, EACCES, 1, 1);
    EXPECT_EQ(UnzipRaw({{"a", "content"}, {"b", "more"}, {"c", "most"}}), StatusCode::AccessDenied);
    EXPECT_THAT(log.Entries(LOGGER), ElementsAre(Error("Unzip: Failed to open destination file " + target +
                                                       "/b, errno = Permission denied"),
                                                 FailedWith("AccessDenied")));
    EXPECT_THAT(ListFolder(target), ElementsAre("a"));
}

TEST_F(ZipperTest, FileThatCannotBeWrittenEndsTheExtraction) {
    WriteFile(archive, MakeRawZip({{"a", "content"}, {"b", "more"}}));
    const FaultScope scope(fault_write);
    fault_write.Fail(-1, ENOSPC);
    EXPECT_EQ(Unzip(), StatusCode::KeyNotFound);
    fault_write.Fail(0);
    EXPECT_EQ(Unzip(), StatusCode::KeyNotFound);
    EXPECT_THAT(log.Entries(LOGGER),
                ElementsAre(Error("Unzip: Failed to write file a, errno = No space left on device"),
                            FailedWith("KeyNotFound"),
                            Error("Unzip: Failed to write file a, errno = Input/output error"),
                            FailedWith("KeyNotFound")));
    EXPECT_THAT(ListFolder(target), ElementsAre("a"));
}

TEST_F(ZipperTest, EntryWithoutContentCountsAsNotWritten) {
    AddSource("empty", "");
    EXPECT_EQ(Zip(), StatusCode::Ok);
    EXPECT_EQ(Unzip(), static_cast<StatusCode>(42));
    EXPECT_THAT(
        Messages(),
        ElementsAre(Successful(), Error("Unzip: Failed to write file empty, errno = Input/output error"),
                    FailedWith("KeyNotFound")));
    EXPECT_THAT(ListFolder(target), ElementsAre("empty"));
}

TEST_F(ZipperTest, ShortWriteCountsAsSuccess) {
    WriteFile(archive, MakeRawZip({{"a", "content"}, {"b", "more"}}));
    const FaultScope scope(fault_write);
    fault_write.Replace([](int fd, const void* buffer, size_t) { return fault_write.Real(fd, buffer, 3); });
    EXPECT_EQ(Unzip(), StatusCode::Ok);
    EXPECT_EQ(fault_write.Calls(), 2);
    EXPECT_EQ(Extracted("a"), "con");
    EXPECT_EQ(Extracted("b"), "more");
}

TEST_F(ZipperTest, LongerFileKeepsItsTailAndItsMode) {
    std::filesystem::create_directory(target);
    WriteFile(target + "/a", "a longer content");
    ASSERT_EQ(chmod((target + "/a").c_str(), 0600), 0);
    EXPECT_EQ(UnzipRaw({{"a", "A SHORT"}, {"new", "content"}}), StatusCode::Ok);
    EXPECT_EQ(Extracted("a"), "A SHORTr content");
    struct stat status {};
    ASSERT_EQ(stat((target + "/a").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    ASSERT_EQ(stat((target + "/new").c_str(), &status), 0);
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(status.st_mode & 07777U, 0744U & ~mask);
}

}  // namespace
}  // namespace mwl::Utilities
