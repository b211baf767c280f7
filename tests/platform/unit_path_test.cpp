#include <gtest/gtest.h>
#include <tern-foundation/unit_path.h>

TEST(UnitPath, LibraryFolderAndConfigurationFolderAreThePlatformsDefaults) {
    EXPECT_EQ(mwl::Unit::Path::MWL_LIB, "/var/lib/mwl");
    EXPECT_EQ(mwl::Unit::Path::ETC, "/etc");
}
