#include <tern/utilities/zipper.h>

#include <filesystem>
#include <string>

#include "plain_file.h"
#include "scenarios.h"

namespace tern::test {

namespace {

using mwl::Utilities::Zipper;

const std::string PASSWORD = "secret";

std::string TextOf(char c) {
    return std::string(6000, c);  // worth compressing, and more than one read of what follows an entry
}

void MakeFolder(const std::string& folder) {
    std::filesystem::create_directory(folder);
    WritePlainFile(folder + "/one", TextOf('1'));
    WritePlainFile(folder + "/two", "2");  // not worth it
}

bool IsWhole(const std::string& folder) {
    return ReadPlainFile(folder + "/one") == TextOf('1') && ReadPlainFile(folder + "/two") == "2";
}

void Zip(Stage& stage, const std::string& password) {
    MakeFolder(stage / "in");
    bool zipped = false;
    stage.Sweep([&] { zipped = stage.Accept(Zipper::Zip(stage / "in", stage / "a.zip", password), "Zip"); });
    if (zipped) {
        stage.Expect(Zipper::Unzip(stage / "a.zip", stage / "out", password) == mwl::StatusCode::Ok &&
                         IsWhole(stage / "out"),
                     "the archive holds everything");
    }
    if (!password.empty() && std::filesystem::exists(stage / "a.zip")) {
        std::filesystem::create_directory(stage / "clear");
        static_cast<void>(Zipper::Unzip(stage / "a.zip", stage / "clear", ""));
        stage.Expect(!std::filesystem::exists(stage / "clear/one"), "nothing is in clear");
    }
}

void Unzip(Stage& stage, const std::string& password) {
    MakeFolder(stage / "in");
    if (Zipper::Zip(stage / "in", stage / "a.zip", password) != mwl::StatusCode::Ok) {
        stage.Expect(false, "the archive is made");
        return;
    }
    stage.Sweep([&] {
        if (stage.Accept(Zipper::Unzip(stage / "a.zip", stage / "out", password), "Unzip")) {
            stage.Expect(IsWhole(stage / "out"), "everything is extracted");
        }
    });
}

void UnzipWhole(Stage& stage) {
    MakeFolder(stage / "in");
    if (Zipper::Zip(stage / "in", stage / "a.zip", PASSWORD) != mwl::StatusCode::Ok) {
        stage.Expect(false, "the archive is made");
        return;
    }
    stage.Sweep([&] {
        if (stage.Accept(Zipper::UnzipWhole(stage / "a.zip", stage / "out", PASSWORD), "UnzipWhole")) {
            stage.Expect(IsWhole(stage / "out"), "everything is extracted");
        }
    });
}

}  // namespace

std::vector<Scenario> ArchiveScenarios() {
    return {{"zip", [](Stage& stage) { Zip(stage, ""); }},
            {"zip-encrypted", [](Stage& stage) { Zip(stage, PASSWORD); }},
            {"unzip", [](Stage& stage) { Unzip(stage, ""); }},
            {"unzip-encrypted", [](Stage& stage) { Unzip(stage, PASSWORD); }},
            {"unzip-whole", UnzipWhole}};
}

}  // namespace tern::test
