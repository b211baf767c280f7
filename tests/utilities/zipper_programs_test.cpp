// Archives of other programs, and ours in other programs.

#include <gtest/gtest.h>

#include <filesystem>

#include "utilities/zipper_fixture.h"

namespace mwl::Utilities {
namespace {

// Other programs

class ZipperWithPrograms : public ZipperTest {
protected:
    ZipperWithPrograms() {
        AddSource("a.txt", SECRET);
        AddSource("long", std::string(100000, 'l') + "end");
        std::filesystem::create_directory(target);
    }

    void ExpectExtracted() const {
        EXPECT_EQ(Extracted("a.txt"), SECRET);
        EXPECT_TRUE(Extracted("long") == ReadFile(source + "/long"));
        EXPECT_THAT(ListFolder(target), SizeIs(2));
    }
    void ExpectRuns(const std::string& command) const {
        const ProgramResult result = RunProgram(command);
        EXPECT_EQ(result.exitCode, 0) << command << "\n" << result.output;
    }
};

TEST_F(ZipperWithPrograms, UnzipOpensOurs) {
    SKIP_WITHOUT("unzip");
    EXPECT_EQ(Zip(), StatusCode::Ok);
    ExpectRuns("unzip -q " + archive + " -d " + target);
    ExpectExtracted();
}

TEST_F(ZipperWithPrograms, PythonOpensOurs) {
    SKIP_WITHOUT("python3");
    EXPECT_EQ(Zip(), StatusCode::Ok);
    ExpectRuns("python3 -m zipfile -t " + archive);
    ExpectRuns("python3 -m zipfile -e " + archive + " " + target);
    ExpectExtracted();
}

TEST_F(ZipperWithPrograms, SevenZipOpensOursPlainAndEncrypted) {
    SKIP_WITHOUT("7z");
    for (const std::string password : {"", "password"}) {
        EXPECT_EQ(Zip(password), StatusCode::Ok);
        const std::string option = password.empty() ? "" : " -p" + password;
        ExpectRuns("7z x -y" + option + " -o" + target + " " + archive);
        ExpectExtracted();
    }
    const ProgramResult listing = RunProgram("7z l -slt -ppassword " + archive);
    EXPECT_THAT(listing.output, HasSubstr("AES-128"));
    EXPECT_NE(RunProgram("7z x -y -pwrong -o" + target + " " + archive).exitCode, 0);
}

TEST_F(ZipperWithPrograms, WeOpenWhatZipMakes) {
    SKIP_WITHOUT("zip");
    ExpectRuns("zip -jq " + archive + " " + source + "/*");
    EXPECT_EQ(Unzip(), StatusCode::Ok);
    ExpectExtracted();
    std::filesystem::remove(archive);
    ExpectRuns("zip -jq -P password " + archive + " " + source + "/*");
    EXPECT_EQ(Unzip("password"), StatusCode::Ok);
    ExpectExtracted();
}

TEST_F(ZipperWithPrograms, WeOpenWhatPythonMakes) {
    SKIP_WITHOUT("python3");
    ExpectRuns("cd " + source + " && python3 -m zipfile -c " + archive + " a.txt long");
    EXPECT_EQ(Unzip(), StatusCode::Ok);
    ExpectExtracted();
}

TEST_F(ZipperWithPrograms, WeOpenWhatSevenZipMakes) {
    SKIP_WITHOUT("7z");
    for (const std::string option :
         {"", "-mm=Copy", "-ppassword -mem=AES128", "-ppassword -mem=AES256", "-ppassword -mem=ZipCrypto"}) {
        SCOPED_TRACE(option);
        std::filesystem::remove(archive);
        ExpectRuns("7z a -tzip " + option + " " + archive + " " + source + "/*");
        EXPECT_EQ(Unzip("password"), StatusCode::Ok);
        ExpectExtracted();
        std::filesystem::remove_all(target);
    }
}

}  // namespace
}  // namespace mwl::Utilities
