#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <systemd/sd-bus.h>
#include <tern/dbus_client/dbus_client_manager.h>

#include <algorithm>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "dbus_client/peer_service.h"
#include "dbus_client/watched_loop.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/private_bus.h"
#include "support/process_resources.h"

using mw::tern::DBusClientManager;
using mw::tern::StatusCode;
using tern::test::CountDescriptors;
using tern::test::Error;
using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::PeerService;
using tern::test::PrivateBus;
using tern::test::WatchedLoop;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

TERN_INTERPOSE(int, sd_bus_default_system, (sd_bus * *bus), (bus))
TERN_INTERPOSE(int, sd_bus_list_names, (sd_bus * bus, char*** acquired, char*** activatable),
               (bus, acquired, activatable))
TERN_INTERPOSE(int, sd_bus_get_property_string,
               (sd_bus * bus, const char* destination, const char* path, const char* interface,
                const char* member, sd_bus_error* error, char** value),
               (bus, destination, path, interface, member, error, value))

namespace {

char** MakeNames(const std::vector<std::string>& names) {
    char** const array = static_cast<char**>(calloc(names.size() + 1, sizeof(char*)));
    std::transform(names.begin(), names.end(), array,
                   [](const std::string& name) { return strdup(name.c_str()); });
    return array;
}

int GetText(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*, sd_bus_error*) {
    return sd_bus_message_append(reply, "s", "/run/foo/requests");
}

int GetNumber(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*, sd_bus_error*) {
    return sd_bus_message_append(reply, "u", 17U);
}

const sd_bus_vtable TEXT_TABLE[] = {
    SD_BUS_VTABLE_START(0), SD_BUS_PROPERTY("RequestSocketAddress", "s", GetText, 0, 0), SD_BUS_VTABLE_END};
const sd_bus_vtable NUMBER_TABLE[] = {
    SD_BUS_VTABLE_START(0), SD_BUS_PROPERTY("RequestSocketAddress", "u", GetNumber, 0, 0), SD_BUS_VTABLE_END};

class DBusClientManagerTest : public testing::Test {
protected:
    PrivateBus privateBus;
    LogCapture log;
    DBusClientManager manager;
    std::set<std::string> names;
    std::string address = "unchanged";
};

}  // namespace

TEST_F(DBusClientManagerTest, IsNotCopyable) {
    EXPECT_FALSE(std::is_copy_constructible_v<DBusClientManager>);
}

TEST_F(DBusClientManagerTest, OperationsBeforeConnectFail) {
    EXPECT_EQ(manager.LookupServices("", names), StatusCode::InvalidArgument);
    EXPECT_EQ(manager.GetRequestSocketAddress("com.example.Foo", address), StatusCode::InvalidArgument);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Error("Service", "Failed to get the list of service name (-22, Invalid argument)"),
                    Error("Service", "Failed to get the request socket address (-22, Invalid argument)")));
    EXPECT_THAT(names, IsEmpty());
    EXPECT_EQ(address, "unchanged");
}

TEST_F(DBusClientManagerTest, ReportsABusThatIsNotThereAndTriesAgainWhenAsked) {
    const std::string realAddress = privateBus.Address();
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/socket", 1);
    EXPECT_EQ(manager.Connect(), StatusCode::NotFound);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Error("Service", "Failed to connect to system bus (-2, No such file or directory)")));
    setenv("DBUS_SYSTEM_BUS_ADDRESS", realAddress.c_str(), 1);
    EXPECT_EQ(manager.Connect(), StatusCode::Ok);
    EXPECT_EQ(manager.LookupServices("", names), StatusCode::Ok);
    EXPECT_EQ(log.Entries().size(), 1U);
}

TEST_F(DBusClientManagerTest, SecondConnectDoesNothing) {
    const FaultScope scope(fault_sd_bus_default_system);
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    fault_sd_bus_default_system.Fail(-EIO);
    EXPECT_EQ(manager.Connect(), StatusCode::Ok);
    EXPECT_EQ(fault_sd_bus_default_system.Calls(), 0);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(DBusClientManagerTest, ConnectionIsTheThreadsDefaultAndReleasedAtTheEnd) {
    const std::size_t before = CountDescriptors();
    {
        DBusClientManager other;
        ASSERT_EQ(manager.Connect(), StatusCode::Ok);
        const std::size_t connected = CountDescriptors();
        EXPECT_GT(connected, before);
        ASSERT_EQ(other.Connect(), StatusCode::Ok);
        EXPECT_EQ(CountDescriptors(), connected) << "both share one connection";
    }
    EXPECT_EQ(manager.LookupServices("", names), StatusCode::Ok) << "still held by the first";
}

TEST_F(DBusClientManagerTest, DestructorReleasesTheConnection) {
    const std::size_t before = CountDescriptors();
    {
        DBusClientManager own;
        ASSERT_EQ(own.Connect(), StatusCode::Ok);
        EXPECT_GT(CountDescriptors(), before);
    }
    EXPECT_EQ(CountDescriptors(), before);
}

TEST_F(DBusClientManagerTest, FindsTheNamesThatBeginWithTheFilter) {
    const PeerService a("com.example.a", [](sd_bus*) {});
    const PeerService x("com.examplex", [](sd_bus*) {});
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    EXPECT_EQ(manager.LookupServices("com.example.", names), StatusCode::Ok);
    EXPECT_THAT(names, ElementsAre("com.example.a"));
    names.clear();
    EXPECT_EQ(manager.LookupServices("com.example", names), StatusCode::Ok);
    EXPECT_THAT(names, ElementsAre("com.example.a", "com.examplex"));
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(DBusClientManagerTest, FilterLongerThanEveryNameFindsNothing) {
    const PeerService a("com.example.a", [](sd_bus*) {});
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    EXPECT_EQ(manager.LookupServices("com.example.a.", names), StatusCode::Ok);
    EXPECT_THAT(names, IsEmpty());
}

TEST_F(DBusClientManagerTest, EmptyFilterTakesEveryNameAndTheSetKeepsWhatItHas) {
    names = {"org.example.Known"};
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    EXPECT_EQ(manager.LookupServices("", names), StatusCode::Ok);
    EXPECT_THAT(names, Contains("org.example.Known"));
    EXPECT_THAT(names, Contains("org.freedesktop.DBus"));
    EXPECT_THAT(names, Contains(testing::StartsWith(":1."))) << "unique names too";
}

// Freed by the sanitizers' word: each string and both arrays.
TEST_F(DBusClientManagerTest, JoinsTheNamesThatAreThereAndThoseThatACallWouldStart) {
    const FaultScope scope(fault_sd_bus_list_names);
    fault_sd_bus_list_names.Replace([](sd_bus*, char*** acquired, char*** activatable) {
        *acquired = MakeNames({"com.example.running", "com.example.both", ":1.42"});
        *activatable = MakeNames({"com.example.both", "com.example.asleep", "org.example.asleep"});
        return 3;
    });
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    EXPECT_EQ(manager.LookupServices("com.example.", names), StatusCode::Ok);
    EXPECT_THAT(names, ElementsAre("com.example.asleep", "com.example.both", "com.example.running"));
}

// sd-bus makes no array of no names.
TEST_F(DBusClientManagerTest, ListsWithoutNamesAddNone) {
    const FaultScope scope(fault_sd_bus_list_names);
    fault_sd_bus_list_names.Replace([](sd_bus*, char*** acquired, char*** activatable) {
        *acquired = nullptr;
        *activatable = nullptr;
        return 0;
    });
    names = {"org.example.Known"};
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    EXPECT_EQ(manager.LookupServices("", names), StatusCode::Ok);
    EXPECT_THAT(names, ElementsAre("org.example.Known"));
    EXPECT_THAT(log.Entries(), testing::IsEmpty());
}

TEST_F(DBusClientManagerTest, ReportsAListThatCannotBeRead) {
    const FaultScope scope(fault_sd_bus_list_names);
    fault_sd_bus_list_names.Fail(-ETIMEDOUT);
    names = {"org.example.Known"};
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    EXPECT_EQ(manager.LookupServices("", names), StatusCode::Timeout);
    EXPECT_THAT(names, ElementsAre("org.example.Known"));
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Error("Service", "Failed to get the list of service name (-110, Connection timed out)")));
}

TEST_F(DBusClientManagerTest, LostBusIsAnError) {
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    privateBus.Kill();
    EXPECT_NE(manager.LookupServices("", names), StatusCode::Ok);
    EXPECT_NE(manager.GetRequestSocketAddress("com.example.Foo", address), StatusCode::Ok);
    EXPECT_EQ(log.Entries("Service").size(), 2U);
    EXPECT_EQ(address, "unchanged");
    EXPECT_EQ(manager.Connect(), StatusCode::Ok) << "meant: a connection is held, if a dead one";
}

TEST(DBusClientManager, NewManagerGetsANewConnectionAfterTheBusWasLost) {
    const LogCapture log;
    std::set<std::string> names;
    {
        PrivateBus lost;
        DBusClientManager manager;
        ASSERT_EQ(manager.Connect(), StatusCode::Ok);
        lost.Kill();
        EXPECT_NE(manager.LookupServices("", names), StatusCode::Ok);
    }
    const PrivateBus back;
    DBusClientManager manager;
    EXPECT_EQ(manager.Connect(), StatusCode::Ok);
    EXPECT_EQ(manager.LookupServices("org.freedesktop.DBus", names), StatusCode::Ok);
    EXPECT_THAT(names, ElementsAre("org.freedesktop.DBus"));
}

TEST_F(DBusClientManagerTest, ReadsTheSocketAddressOfAService) {
    const PeerService peer("com.example.Foo", [](sd_bus* bus) {
        ASSERT_GE(sd_bus_add_object_vtable(bus, nullptr, "/com/example/Foo", "com.example.Foo", TEXT_TABLE,
                                           nullptr),
                  0);
    });
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    EXPECT_EQ(manager.GetRequestSocketAddress("com.example.Foo", address), StatusCode::Ok);
    EXPECT_EQ(address, "/run/foo/requests");
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(DBusClientManagerTest, PathOfANameWithoutDotsIsTheNameBehindASlash) {
    const FaultScope scope(fault_sd_bus_get_property_string);
    std::vector<std::string> seen;
    fault_sd_bus_get_property_string.Replace([&](sd_bus*, const char* destination, const char* path,
                                                 const char* interface, const char* member, sd_bus_error*,
                                                 char** value) {
        seen = {destination, path, interface, member};
        *value = strdup("/run/socket");
        return 1;
    });
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    EXPECT_EQ(manager.GetRequestSocketAddress("Foo", address), StatusCode::Ok);
    EXPECT_THAT(seen, ElementsAre("Foo", "/Foo", "Foo", "RequestSocketAddress"));
    EXPECT_EQ(address, "/run/socket");
}

TEST_F(DBusClientManagerTest, ServiceThatIsNotThereLeavesTheAddress) {
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    EXPECT_EQ(manager.GetRequestSocketAddress("com.example.Foo", address), StatusCode::Failure);
    EXPECT_EQ(address, "unchanged");
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Error("Service", "Failed to get the request socket address (-113, No route to host)")));
}

TEST_F(DBusClientManagerTest, PropertyOfAnotherTypeLeavesTheAddress) {
    const PeerService peer("com.example.Foo", [](sd_bus* bus) {
        ASSERT_GE(sd_bus_add_object_vtable(bus, nullptr, "/com/example/Foo", "com.example.Foo", NUMBER_TABLE,
                                           nullptr),
                  0);
    });
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    EXPECT_EQ(manager.GetRequestSocketAddress("com.example.Foo", address), StatusCode::InvalidArgument);
    EXPECT_EQ(address, "unchanged");
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error(
                    "Service", "Failed to get the request socket address (-6, No such device or address)")));
}

TEST_F(DBusClientManagerTest, NameThatMakesNoObjectPathLeavesTheAddress) {
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    for (const char* const name : {"", "com.example.Foo-Bar", "com..example", "com.example.", "no\nname.x"}) {
        log.Clear();
        EXPECT_EQ(manager.GetRequestSocketAddress(name, address), StatusCode::InvalidArgument) << name;
        EXPECT_THAT(log.Entries(),
                    ElementsAre(Error("Service",
                                      "Failed to get the request socket address (-22, Invalid argument)")));
    }
    EXPECT_EQ(address, "unchanged");
}

TEST_F(DBusClientManagerTest, OnALoopWithAWatchdogAnOperationWaitsAQuarterOfThePeriod) {
    const WatchedLoop loop(40000000);
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    const FaultScope listScope(fault_sd_bus_list_names);
    sd_bus* used = nullptr;
    std::uint64_t timeOutUs = 0;
    fault_sd_bus_list_names.Replace([&](sd_bus* bus, char***, char***) {
        used = bus;
        EXPECT_GE(sd_bus_get_method_call_timeout(bus, &timeOutUs), 0);
        return -ETIMEDOUT;
    });
    EXPECT_EQ(manager.LookupServices("", names), StatusCode::Timeout);
    EXPECT_EQ(timeOutUs, 5000000U) << "it makes two calls";
    const FaultScope propertyScope(fault_sd_bus_get_property_string);
    fault_sd_bus_get_property_string.Replace(
        [&](sd_bus* bus, const char*, const char*, const char*, const char*, sd_bus_error*, char**) {
            EXPECT_GE(sd_bus_get_method_call_timeout(bus, &timeOutUs), 0);
            return -ETIMEDOUT;
        });
    EXPECT_EQ(manager.GetRequestSocketAddress("com.example.Foo", address), StatusCode::Timeout);
    EXPECT_EQ(timeOutUs, 10000000U);
    std::uint64_t behind = 0;
    ASSERT_NE(used, nullptr);
    EXPECT_GE(sd_bus_get_method_call_timeout(used, &behind), 0);
    EXPECT_EQ(behind, 25000000U) << "as it was";
}
