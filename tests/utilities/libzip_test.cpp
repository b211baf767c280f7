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

#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

TERN_INTERPOSE(void*, dlopen, (const char* file, int flags), (file, flags))
TERN_INTERPOSE(int, zip_close, (zip_t * archive), (archive))

namespace mwl::Utilities {
namespace {

using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::TempFolder;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

tern::test::LogEntry Error(const std::string& text) {
    return tern::test::Error("mwl::Utilities::Zipper", text);
}

/// What is mapped into this process.
std::string Mappings() {
    std::ostringstream text;
    text << std::ifstream("/proc/self/maps").rdbuf();
    return text.str();
}

/// First, as it wants a process in which nobody has needed libzip yet.
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
