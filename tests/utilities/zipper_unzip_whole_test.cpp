// UnzipWhole, and disks that are full.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <algorithm>
#include <filesystem>

#include "private_mounts.h"
#include "support/child.h"
#include "utilities/zipper_fixture.h"

namespace mwl::Utilities {
namespace {

/// What Unzip takes for a success and UnzipWhole tells.
TEST_F(ZipperTest, FullDiskIsToldByUnzipWhole) {
    if (!tern::test::CanMountPrivately()) {
        GTEST_SKIP() << "a mount namespace is not permitted here";
    }
    WriteFile(archive, MakeRawZip({{"a", std::string(200 * 1024, 'a')}}));
    std::filesystem::create_directory(target);
    const tern::test::ChildResult child = tern::test::RunInChild([&] {
        if (!tern::test::EnterPrivateMounts() || !tern::test::CoverWithSmallDisk(target, 64)) {
            return 2;
        }
        return Unzip() == StatusCode::Ok && Extracted("a").size() == 64 * 1024 &&
                       UnzipWhole() == StatusCode::IoError
                   ? 0
                   : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    ASSERT_GE(child.log.size(), 2U);
    EXPECT_EQ(child.log[child.log.size() - 2],
              Error("Unzip: Failed to write file a, errno = No space left on device"));
    EXPECT_EQ(child.log.back(), FailedWith("IoError"));
}

TEST_F(ZipperTest, ArchiveThatDoesNotFitOnTheDiskIsTold) {
    if (!tern::test::CanMountPrivately()) {
        GTEST_SKIP() << "a mount namespace is not permitted here";
    }
    std::string content;
    for (std::uint32_t number = 1; content.size() < 200 * 1024; number = number * 1664525 + 1013904223) {
        content += static_cast<char>(number >> 24U);
    }
    AddSource("a", content);
    std::filesystem::create_directory(target);
    const tern::test::ChildResult child = tern::test::RunInChild([&] {
        return tern::test::EnterPrivateMounts() && tern::test::CoverWithSmallDisk(target, 64) &&
                       Zipper::Zip(source, target + "/a.zip", "") == StatusCode::Failure &&
                       ListFolder(target).empty()
                   ? 0
                   : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
}

TEST_F(ZipperTest, WholeExtractionIsThatOfUnzipWithoutItsGaps) {
    std::filesystem::create_directories(target + "/there");
    WriteFile(target + "/a", "a longer content");
    ASSERT_EQ(chmod((target + "/a").c_str(), 0600), 0);
    WriteFile(archive,
              MakeRawZip({{"a", "short"}, {"empty", ""}, {"there//f", "below"}, {"/absolute", "here"}}));
    const std::size_t before = CountDescriptors();
    EXPECT_EQ(UnzipWhole(), StatusCode::Ok);
    EXPECT_EQ(CountDescriptors(), before);
    EXPECT_EQ(Extracted("a"), "short");
    EXPECT_EQ(Extracted("empty"), "");
    EXPECT_EQ(Extracted("there/f"), "below");
    EXPECT_EQ(Extracted("absolute"), "here");
    EXPECT_THAT(ListFolder(target), ElementsAre("a", "absolute", "empty", "there"));
    struct stat status {};
    ASSERT_EQ(stat((target + "/a").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    EXPECT_THAT(log.Entries(LOGGER), IsEmpty());
}

TEST_F(ZipperTest, WholeExtractionWritesInAsManyCallsAsItTakes) {
    WriteFile(archive, MakeRawZip({{"a", "content"}}));
    const FaultScope scope(fault_write);
    fault_write.Replace([](int fd, const void* buffer,
                           size_t size) { return fault_write.Real(fd, buffer, std::min<size_t>(size, 3)); },
                        1000);
    EXPECT_EQ(UnzipWhole(), StatusCode::Ok);
    EXPECT_EQ(Extracted("a"), "content");
}

TEST_F(ZipperTest, WholeExtractionRefusesTheNamesThatUnzipRefuses) {
    std::filesystem::create_directories(target + "/there");
    for (const char* name : {"..", "", "/", "there/", "new/", "there/.."}) {
        log.Clear();
        WriteFile(archive, MakeRawZip({{name, "content"}}));
        EXPECT_EQ(UnzipWhole(), StatusCode::IoError) << name;
    }
    for (const char* name : {"d/f.txt", "/etc/passwd"}) {
        WriteFile(archive, MakeRawZip({{name, "content"}}));
        EXPECT_EQ(UnzipWhole(), StatusCode::NotFound) << name;
    }
    WriteFile(archive, MakeRawZip({{"../x", "content"}}));
    EXPECT_EQ(UnzipWhole(), StatusCode::InvalidArgument);
    EXPECT_THAT(ListFolder(target), ElementsAre("there"));
    EXPECT_EQ(Zipper::UnzipWhole("", target, ""), StatusCode::Failure);
}

TEST_F(ZipperTest, WholeExtractionFollowsNoLinkAndWaitsForNoFifo) {
    const TempFolder elsewhere;
    const std::string outside = elsewhere.Path();
    std::filesystem::create_directories(target);
    WriteFile(outside + "/f", "precious");
    std::filesystem::create_symlink(outside + "/f", target + "/file");
    std::filesystem::create_symlink(outside, target + "/folder");
    ASSERT_EQ(mkfifo((target + "/fifo").c_str(), 0600), 0);
    const int reader = open((target + "/fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const std::pair<const char*, StatusCode> rows[] = {{"file", StatusCode::Failure},
                                                       {"folder/f", StatusCode::NotFound},
                                                       {"fifo", StatusCode::InvalidArgument}};
    for (const auto& [name, status] : rows) {
        WriteFile(archive, MakeRawZip({{name, "content"}}));
        EXPECT_EQ(UnzipWhole(), status) << name;
    }
    close(reader);
    WriteFile(archive, MakeRawZip({{"fifo", "content"}}));
    EXPECT_EQ(UnzipWhole(), StatusCode::InvalidArgument) << "nobody reads it";
    EXPECT_EQ(ReadFile(outside + "/f"), "precious");
}

TEST_F(ZipperTest, WholeExtractionTellsOfWhatUnzipLeavesOut) {
    WriteFile(archive, MakeRawZip({{"a", "content"}}));
    const FaultScope statScope(fault_zip_stat_index);
    fault_zip_stat_index.Replace([](zip_t* opened, auto...) {
        zip_error_set(zip_get_error(opened), ZIP_ER_MEMORY, 0);
        return -1;
    });
    EXPECT_EQ(UnzipWhole(), StatusCode::OutOfMemory);
    const FaultScope readScope(fault_zip_fread);
    fault_zip_fread.Replace([](zip_file_t* entry, void* buffer, zip_uint64_t) {
        const zip_int64_t count = fault_zip_fread.Real(entry, buffer, 3);
        char rest[16];
        fault_zip_fread.Real(entry, rest, sizeof rest);
        return count;
    });
    EXPECT_EQ(UnzipWhole(), StatusCode::InvalidArgument);
    EXPECT_THAT(ListFolder(target), IsEmpty());
    EXPECT_THAT(log.Entries(LOGGER),
                ElementsAre(Error("Unzip: Failed to open zip file 0, error = Malloc failure"),
                            FailedWith("OutOfMemory"), Error("Unzip: Failed to read file a"),
                            FailedWith("InvalidArgument")));
}

TEST_F(ZipperTest, WholeExtractionThatCannotBeStoredIsTold) {
    WriteFile(archive, MakeRawZip({{"a", "content"}}));
    const FaultScope syncScope(fault_syncfs);
    fault_syncfs.Fail(-1, EIO);
    EXPECT_EQ(UnzipWhole(), StatusCode::IoError);
    EXPECT_THAT(log.Entries(LOGGER), ElementsAre(Error("UnzipWhole: Failed to store what is in " + target +
                                                       ", errno = Input/output error")));
    const TempFolder elsewhere;
    WriteFile(elsewhere / "file", "");
    EXPECT_EQ(Zipper::UnzipWhole(archive, elsewhere / "file", ""), StatusCode::NotFound) << "no folder";
}

TEST_F(ZipperTest, ArchiveThatCannotBeClosedFailsWhateverHappenedBefore) {
    const FaultScope scope(fault_zip_close);
    fault_zip_close.Fail(-1, 0, 2);
    EXPECT_EQ(UnzipRaw({{"a", "content"}}), StatusCode::Failure);
    EXPECT_EQ(UnzipRaw({{"../a", "content"}}), StatusCode::Failure);
    const LogEntry finish = Info("Unzip: Unzip creation finish with: Unknown error -1");
    EXPECT_THAT(log.Entries(LOGGER), ElementsAre(finish, Error("Unzip: Zip file has a malicious path ../a"),
                                                 FailedWith("InvalidArgument"), finish));
    EXPECT_EQ(Extracted("a"), "content");
}

TEST_F(ZipperTest, UnexpectedResultOfClosingDoesNotConcernWhatIsExtracted) {
    const FaultScope scope(fault_zip_close);
    fault_zip_close.Fail(5, 0, 2);
    EXPECT_EQ(UnzipRaw({{"a", "content"}}), StatusCode::Ok);
    EXPECT_EQ(Extracted("a"), "content");
    EXPECT_EQ(UnzipRaw({{"../a", "content"}}), StatusCode::InvalidArgument);
    EXPECT_EQ(fault_zip_close.Calls(), 2);
    EXPECT_THAT(log.Entries(LOGGER), ElementsAre(Error("Unzip: Zip file has a malicious path ../a"),
                                                 FailedWith("InvalidArgument")));
}

}  // namespace
}  // namespace mwl::Utilities
