#include "support/temp_folder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <system_error>

#include "temporary_place.h"

namespace tern::test {
namespace {

TEST(TempFolder, IsMadeWhereTmpdirSaysAndGoesAway) {
    const TempFolder outer;
    for (const char* const name : ODD_NAMES) {
        const std::string place = MakePlace(outer, name);
        const TemporaryPlace temporary(place);
        std::string path;
        {
            const TempFolder folder;
            path = folder.Path();
            EXPECT_TRUE(path.starts_with(place + "/tern-test-")) << path;
            EXPECT_TRUE(std::filesystem::is_directory(path));
        }
        EXPECT_FALSE(std::filesystem::exists(path));
    }
}

TEST(TempFolder, IsAbsoluteAlsoWhenTmpdirIsNot) {
    const TempFolder outer;
    const std::filesystem::path former = std::filesystem::current_path();
    std::filesystem::current_path(outer.Path());
    MakePlace(outer, "place");
    {
        const TemporaryPlace temporary("place");
        const TempFolder folder;
        EXPECT_TRUE(folder.Path().starts_with("/")) << folder.Path();
        EXPECT_TRUE(std::filesystem::is_directory(folder.Path()));
        std::filesystem::current_path(former);  // it is removed all the same
    }
    EXPECT_TRUE(std::filesystem::is_empty(outer / "place"));
}

TEST(TempFolder, NamesThePathThatCannotBeMade) {
    const TempFolder outer;
    const TemporaryPlace temporary(outer / "missing");
    try {
        const TempFolder folder;
        FAIL() << folder.Path();
    } catch (const std::system_error& error) {
        EXPECT_THAT(error.what(), testing::HasSubstr(outer / "missing"));
        EXPECT_THAT(error.what(), testing::HasSubstr("No such file or directory"));
    }
}

}  // namespace
}  // namespace tern::test
