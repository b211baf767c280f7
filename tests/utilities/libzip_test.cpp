// How libzip comes into the process; this program does not link it. What its functions do is
// zipper_test.cpp's matter.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/utilities/zipper.h>
#include <zip.h>

#include <fstream>
#include <sstream>
#include <string>

#include "files.h"
#include "raw_zip.h"
#include "support/child.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

TERN_INTERPOSE(void*, dlopen, (const char* file, int flags), (file, flags))
TERN_INTERPOSE(int, zip_close, (zip_t * archive), (archive))

namespace mwl::Utilities {
namespace {

using tern::test::ChildResult;
using tern::test::ContentOf;
using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::LogEntry;
using tern::test::MakeFile;
using tern::test::MakeRawZip;
using tern::test::RunInChild;
using tern::test::TempFolder;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

LogEntry Error(const std::string& text) {
    return tern::test::Error("mwl::Utilities::Zipper", text);
}

/// What is mapped into this process.
std::string Mappings() {
    std::ostringstream text;
    text << std::ifstream("/proc/self/maps").rdbuf();
    return text.str();
}

// The first two want a process in which nobody has needed libzip yet.

/// The installed libzip without its youngest function, as an older one with the same soname.
void MakeOlderLibzip(const std::string& path) {
    std::string bytes = ContentOf(TERN_LIBZIP_FILE);
    const std::string name("zip_encryption_method_supported", sizeof "zip_encryption_method_supported");
    const std::size_t at = bytes.find(name);
    ASSERT_NE(at, std::string::npos);
    bytes[at] = 'Z';
    MakeFile(path, bytes);
}

TEST(Libzip, ThatLacksAFunctionIsRefused) {
    const TempFolder folder;
    const std::string older = folder / "older";
    MakeOlderLibzip(older);
    MakeFile(folder / "a.zip", MakeRawZip({{"a", "content"}}));
    const ChildResult child = RunInChild([&] {
        fault_dlopen.Replace([&](const char*, int flags) { return fault_dlopen.Real(older.c_str(), flags); },
                             2);
        // With a password, as the missing function is needed then.
        const StatusCode unzipped = Zipper::Unzip(folder / "a.zip", folder / "target", "password");
        const StatusCode zipped = Zipper::Zip(folder.Path(), folder / "b.zip", "");
        return unzipped == StatusCode::Failure && zipped == StatusCode::Failure ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.error;
    const auto said = [](const std::string& text) {
        return Field(&LogEntry::text, AllOf(StartsWith(text + ", error = libzip.so."),
                                            EndsWith(" has no function zip_encryption_method_supported")));
    };
    EXPECT_THAT(child.log, Contains(said("Unzip: Failed to open zip " + (folder / "a.zip"))));
    EXPECT_THAT(child.log, Contains(said("Zip: Failed to create zip " + (folder / "b.zip"))));
}

TEST(Libzip, IsLoadedWhenAnArchiveIsFirstOpened) {
    const TempFolder folder;
    const LogCapture log;
    EXPECT_THAT(Mappings(), Not(HasSubstr("libzip.so")));
    EXPECT_EQ(Zipper::Zip("", "", ""), StatusCode::Ok);
    EXPECT_EQ(Zipper::GetStatusZipError(0), StatusCode::Failure);
    EXPECT_THAT(Mappings(), Not(HasSubstr("libzip.so")));
    EXPECT_EQ(Zipper::Unzip(folder / "none.zip", folder / "target", ""), StatusCode::InvalidArgument);
    EXPECT_THAT(Mappings(), HasSubstr("libzip.so"));
    EXPECT_THAT(log.Entries(), Contains(Error("Unzip: Failed to open zip " + (folder / "none.zip") +
                                              ", error = No such file")));
}

TEST(Libzip, AProgramCanStandInForAFunctionWithoutLinkingIt) {
    const TempFolder folder;
    const LogCapture log(6);
    const FaultScope scope(fault_zip_close);
    fault_zip_close.Fail(-1);
    EXPECT_EQ(Zipper::Zip(folder.Path(), folder / "new.zip", ""), StatusCode::Failure);
    EXPECT_EQ(fault_zip_close.Calls(), 1);
    EXPECT_THAT(log.Entries(), Contains(tern::test::Info("mwl::Utilities::Zipper",
                                                         "Zip: Zip creation finish with: Unknown error -1")));
}

TEST(Libzip, ThatIsNotThereFailsBothWays) {
    const TempFolder folder;
    const LogCapture log(3);
    const FaultScope scope(fault_dlopen);
    fault_dlopen.Replace(
        [](const char*, int flags) { return fault_dlopen.Real("no-such-library.so", flags); }, 2);
    EXPECT_EQ(Zipper::Zip(folder.Path(), folder / "new.zip", ""), StatusCode::Failure);
    EXPECT_EQ(Zipper::Unzip(folder / "old.zip", folder / "target", ""), StatusCode::Failure);
    const std::string reason =
        ", error = no-such-library.so: cannot open shared object file: No such file or directory";
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error("Zip: Failed to create zip " + (folder / "new.zip") + reason),
                            Error("Unzip: Failed to open zip " + (folder / "old.zip") + reason)));
}

TEST(Libzip, ThatIsNotThereForNoKnownReasonIsNamed) {
    const TempFolder folder;
    const LogCapture log(3);
    const FaultScope scope(fault_dlopen);
    dlerror();  // NOLINT(concurrency-mt-unsafe): nothing is left from before
    fault_dlopen.Fail(nullptr);
    EXPECT_EQ(Zipper::Zip(folder.Path(), folder / "new.zip", ""), StatusCode::Failure);
    ASSERT_EQ(log.Entries().size(), 1U);
    EXPECT_THAT(log.Entries()[0].text, HasSubstr("error = libzip.so."));
}

}  // namespace
}  // namespace mwl::Utilities
