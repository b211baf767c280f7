#include "support/private_bus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <filesystem>
#include <memory>
#include <stdexcept>

#include "support/process_resources.h"
#include "temporary_place.h"

namespace tern::test {
namespace {

/// Whether a client meets a bus where the process's environment says.
bool HasSystemBus() {
    sd_bus* bus = nullptr;
    const char* name = nullptr;
    const bool found =
        sd_bus_open_system(&bus) >= 0 && sd_bus_get_unique_name(bus, &name) >= 0 && name[0] == ':';
    sd_bus_flush_close_unref(bus);
    return found;
}

class PrivateBusTest : public testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(CountDescriptors(), mDescriptors); }

private:
    const std::size_t mDescriptors = CountDescriptors();
};

TEST_F(PrivateBusTest, IsTheSystemBusWhileItLives) {
    {
        PrivateBus bus;
        EXPECT_EQ(bus.Address(), getenv("DBUS_SYSTEM_BUS_ADDRESS"));
        EXPECT_TRUE(HasSystemBus());
        bus.Kill();
        EXPECT_FALSE(HasSystemBus());
    }
    EXPECT_EQ(getenv("DBUS_SYSTEM_BUS_ADDRESS"), nullptr);
}

// After the second one the test's calls went to the machine's own bus, although the first one was there.
TEST_F(PrivateBusTest, OfSeveralTheLastOneThatLivesIsTheSystemBus) {
    const auto isSystemBus = [](const PrivateBus& bus) {
        const char* const address = getenv("DBUS_SYSTEM_BUS_ADDRESS");
        return address != nullptr && bus.Address() == address && HasSystemBus();
    };
    auto first = std::make_unique<PrivateBus>();
    {
        const PrivateBus second;
        EXPECT_TRUE(isSystemBus(second));
    }
    EXPECT_TRUE(isSystemBus(*first));
    // The former one goes when the new one is there.
    first = std::make_unique<PrivateBus>();
    EXPECT_TRUE(isSystemBus(*first));
    auto third = std::make_unique<PrivateBus>();
    first.reset();
    EXPECT_TRUE(isSystemBus(*third));
    third.reset();
    EXPECT_EQ(getenv("DBUS_SYSTEM_BUS_ADDRESS"), nullptr);
}

TEST_F(PrivateBusTest, WorksInFoldersOfAnyName) {
    const TempFolder outer;
    for (const char* const name : ODD_NAMES) {
        const TemporaryPlace temporary(MakePlace(outer, name));
        const PrivateBus bus;
        EXPECT_TRUE(HasSystemBus()) << bus.Address();
    }
}

TEST_F(PrivateBusTest, RefusesAFolderThatIsTooLong) {
    const TempFolder outer;
    const std::size_t own = std::string("/tern-test-XXXXXX/socket").size();
    {
        const TemporaryPlace temporary(MakePlace(outer, NameOfSize(outer, 99 - own)));
        const PrivateBus bus;
        EXPECT_TRUE(HasSystemBus());
    }
    for (const std::size_t size : {100 - own, std::size_t{200}}) {
        const std::string place = MakePlace(outer, NameOfSize(outer, size));
        const TemporaryPlace temporary(place);
        try {
            const PrivateBus bus;
            ADD_FAILURE() << bus.Address();
        } catch (const std::runtime_error& error) {
            EXPECT_THAT(error.what(), testing::HasSubstr(place));
            EXPECT_THAT(error.what(), testing::HasSubstr("set TMPDIR to a folder with a shorter path"));
        }
        EXPECT_TRUE(std::filesystem::is_empty(place));
    }
}

TEST_F(PrivateBusTest, TellsWhyTheDaemonDidNotStart) {
    const std::string path = getenv("PATH");
    setenv("PATH", "/nowhere", 1);
    try {
        const PrivateBus bus;
        ADD_FAILURE() << bus.Address();
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(),
                     "dbus-daemon did not start: No such file or directory; is the package dbus-daemon "
                     "installed?");
    }
    setenv("PATH", path.c_str(), 1);
}

}  // namespace
}  // namespace tern::test
