// A typed client of systemd's own hostnamed and timedated, on a private bus. Where it may, each has an /etc
// and a host name of its own, so that the machine keeps its; else values are only read. 77: they are not
// installed.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/utsname.h>
#include <tern/typed/property_cache.h>
#include <tern/typed/proxy.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "contracts.h"
#include "peer_test.h"

namespace tern::test {

namespace {

using namespace mwl::Typed;
using namespace std::chrono_literals;
using mwl::StatusCode;
using testing::Contains;

constexpr const char* HOSTNAMED = "/lib/systemd/systemd-hostnamed";
constexpr const char* TIMEDATED = "/lib/systemd/systemd-timedated";
constexpr const char* ZONE = "Europe/Berlin";

/// Whether this user may have an /etc and a host name of its own.
bool MayChange() {
    static const bool may = [] {
        soak::ChildProcess trial;
        trial.Start({"/usr/bin/unshare", "--uts", "--mount", "true"}, "/dev/null");
        return trial.WaitForEnd(GENEROUS_LIMIT) == 0;
    }();
    return may;
}
bool HasZone() {
    return std::filesystem::exists(std::string("/usr/share/zoneinfo/") + ZONE);
}

class SystemdClient : public PeerTest {
protected:
    /// On an /etc of its own, in which the time zone is UTC; without the right to set the clock, by which the
    /// kernel would be told of a time zone. There is no systemd on this bus that timedated could ask about
    /// services for NTP, so it is told that there are none.
    bool StartDaemon(const std::string& daemon, const std::string& name) {
        std::vector<std::string> command{"/usr/bin/env", "SYSTEMD_TIMEDATED_NTP_SERVICES=", daemon};
        if (MayChange()) {
            const std::string etc = mFolder / "etc";
            std::filesystem::create_directory(etc);
            std::filesystem::create_symlink("/usr/share/zoneinfo/Etc/UTC", etc + "/localtime");
            for (const char* const file : {"passwd", "group", "machine-id", "nsswitch.conf"}) {
                std::error_code ignored;  // what is missing here the daemon does not find there either
                std::filesystem::copy_file(std::string("/etc/") + file, etc + "/" + file, ignored);
            }
            command.insert(command.begin(), {"/usr/bin/unshare", "--uts", "--mount", "sh", "-c",
                                             "mount --bind \"$0\" /etc && exec setpriv --inh-caps=-sys_time "
                                             "--bounding-set=-sys_time \"$@\"",
                                             etc});
        }
        return StartPeer(command, name);
    }

    template <class R>
    static std::string TextOf(const Outcome<R>& outcome) {
        return outcome.IsOk() ? "another value"
                              : outcome.GetError().GetName() + ": " + outcome.GetError().GetText();
    }
    template <class R>
    static void ExpectError(const Outcome<R>& outcome, const char* name, const char* text) {
        ASSERT_FALSE(outcome.IsOk());
        EXPECT_EQ(outcome.GetError().GetName(), name);
        EXPECT_EQ(outcome.GetError().GetText(), text);
    }
};

TEST_F(SystemdClient, HostnamedTellsTheHostNameAndEachNewOne) {
    ASSERT_TRUE(StartDaemon(HOSTNAMED, Hostname1::NAME));
    const Proxy<Hostname1> host(*mIt.bus, Hostname1::NAME, "/org/freedesktop/hostname1");
    PropertyCache<Hostname1> cache(host);
    utsname system{};
    ASSERT_EQ(uname(&system), 0);
    const Outcome<std::string> name = Await(host.Get(Hostname1::Hostname));
    EXPECT_TRUE(name.IsOk() && *name == system.nodename) << TextOf(name);
    EXPECT_TRUE(RunUntil([&] { return cache.IsReady(); }));
    EXPECT_EQ(cache.Get<Hostname1::Hostname>(), system.nodename);
    EXPECT_EQ(cache.Get<Hostname1::KernelName>(), system.sysname);
    EXPECT_EQ(cache.Get<Hostname1::KernelRelease>(), system.release);
    if (!MayChange()) {
        return;
    }
    for (const std::string next : {"kitchen", "cellar"}) {
        const Outcome<void> set = Await(host.Call(Hostname1::SetHostname, next, false));
        ASSERT_TRUE(set.IsOk()) << TextOf(set);
        EXPECT_TRUE(RunUntil([&] { return cache.Get<Hostname1::Hostname>() == next; })) << next;
    }
    const Outcome<void> refused = Await(host.Call(Hostname1::SetHostname, "no name!", false));
    ExpectError(refused, "org.freedesktop.DBus.Error.InvalidArgs", "Invalid hostname 'no name!'");
    EXPECT_EQ(cache.Get<Hostname1::Hostname>(), "cellar");
}

TEST_F(SystemdClient, TimedatedTellsItsProperties) {
    ASSERT_TRUE(StartDaemon(TIMEDATED, Timedate1::NAME));
    const Proxy<Timedate1> time(*mIt.bus, Timedate1::NAME, "/org/freedesktop/timedate1");
    const PropertyCache<Timedate1> cache(time);
    EXPECT_TRUE(RunUntil([&] { return cache.IsReady(); }));
    EXPECT_EQ(cache.Get<Timedate1::NTP>(), false);
    EXPECT_EQ(cache.Get<Timedate1::CanNTP>(), false);
    EXPECT_TRUE(cache.Get<Timedate1::LocalRTC>().has_value());
    EXPECT_TRUE(cache.Get<Timedate1::NTPSynchronized>().has_value());
    EXPECT_TRUE(cache.Get<Timedate1::RTCTimeUSec>().has_value());
    const Outcome<std::uint64_t> now = Await(time.Get(Timedate1::TimeUSec));
    ASSERT_TRUE(now.IsOk()) << TextOf(now);
    const auto told = std::chrono::microseconds(*now);
    const auto clock = std::chrono::system_clock::now().time_since_epoch();
    EXPECT_LT(told, clock + 1s);
    EXPECT_GT(told, clock - 60s);
    const Outcome<std::vector<std::string>> zones = Await(time.Call(Timedate1::ListTimezones));
    ASSERT_TRUE(zones.IsOk()) << TextOf(zones);
    EXPECT_THAT(*zones, Contains("UTC"));
    if (HasZone()) {
        EXPECT_THAT(*zones, Contains(ZONE));
        EXPECT_GT(zones->size(), 100U);
    }
    EXPECT_EQ(mIt.bus->GetCounters().wrongProperties, 0U);
    EXPECT_EQ(mIt.bus->GetCounters().wrongReplies, 0U);
}

TEST_F(SystemdClient, TimedatedsZoneIsFollowed) {
    if (!MayChange()) {
        GTEST_SKIP() << "this user may not have an /etc of its own";
    }
    ASSERT_TRUE(StartDaemon(TIMEDATED, Timedate1::NAME));
    const Proxy<Timedate1> time(*mIt.bus, Timedate1::NAME, "/org/freedesktop/timedate1");
    PropertyCache<Timedate1> cache(time);
    std::size_t told = 0;
    cache.OnChange([&](const PropertyChanges<Timedate1>& changes) {
        told += changes.Has<Timedate1::Timezone>() ? 1 : 0;
    });
    EXPECT_TRUE(RunUntil([&] { return cache.IsReady(); }));
    EXPECT_EQ(cache.Get<Timedate1::Timezone>(), "Etc/UTC");
    for (const std::string zone : {HasZone() ? ZONE : "UTC", "Etc/UTC"}) {
        const Outcome<void> set = Await(time.Call(Timedate1::SetTimezone, zone, false));
        ASSERT_TRUE(set.IsOk()) << TextOf(set);
        EXPECT_TRUE(RunUntil([&] { return cache.Get<Timedate1::Timezone>() == zone; })) << zone;
    }
    EXPECT_EQ(told, 3U);
}

TEST_F(SystemdClient, TimedatedsOwnErrorsArrive) {
    ASSERT_TRUE(StartDaemon(TIMEDATED, Timedate1::NAME));
    const Proxy<Timedate1> time(*mIt.bus, Timedate1::NAME, "/org/freedesktop/timedate1");
    ExpectError(Await(time.Call(Timedate1::SetTimezone, "Nowhere/Land", false)),
                "org.freedesktop.DBus.Error.InvalidArgs",
                "Invalid or not installed time zone 'Nowhere/Land'");
    ExpectError(Await(time.Call(Timedate1::SetNTP, true, false)), "org.freedesktop.timedate1.NoNTPSupport",
                "NTP not supported");
}

TEST_F(SystemdClient, OtherTypesThanTimedatedsAreTold) {
    ASSERT_TRUE(StartDaemon(TIMEDATED, Timedate1::NAME));
    const Proxy<WrongTimedate1> time(*mIt.bus, Timedate1::NAME, "/org/freedesktop/timedate1");
    ExpectError(Await(time.Call(WrongTimedate1::ListTimezones)), "mwl.Typed.Error.WrongReply",
                "a reply of 'as' where 's' is wanted");
    ExpectError(Await(time.Call(WrongTimedate1::SetTimezone, "UTC")),
                "org.freedesktop.DBus.Error.InvalidArgs",
                "Invalid arguments 's' to call org.freedesktop.timedate1.SetTimezone(), expecting 'sb'.");
    ExpectError(Await(time.Get(WrongTimedate1::Timezone)), "mwl.Typed.Error.WrongReply",
                "the result: 's' where 'b' is wanted");
    const PropertyCache<WrongTimedate1> cache(time);
    EXPECT_TRUE(RunUntil([&] { return cache.IsReady(); }));
    EXPECT_FALSE(cache.Get<WrongTimedate1::Timezone>().has_value());
    EXPECT_EQ(cache.Get<WrongTimedate1::NTP>(), false);
    EXPECT_EQ(mIt.bus->GetCounters().wrongProperties, 1U);
    EXPECT_EQ(mIt.bus->GetCounters().wrongReplies, 2U);
}

TEST_F(SystemdClient, ADaemonThatHangsAndDiesInTheMiddleOfACallIsSeen) {
    ASSERT_TRUE(StartDaemon(TIMEDATED, Timedate1::NAME));
    const Proxy<Timedate1> time(*mIt.bus, Timedate1::NAME, "/org/freedesktop/timedate1");
    bool isGone = false;
    const PeerWatch watch(*mIt.bus, Timedate1::NAME, nullptr, [&] { isGone = true; });
    const PropertyCache<Timedate1> cache(time);
    EXPECT_TRUE(RunUntil([&] { return cache.IsReady() && watch.IsPresent(); }));
    mPeer.Signal(SIGSTOP);
    const Outcome<std::string> late = Await(time.Get(Timedate1::Timezone).Within(100ms));
    ASSERT_FALSE(late.IsOk());
    EXPECT_EQ(late.GetError().GetStatus(), StatusCode::Timeout) << TextOf(late);
    EXPECT_TRUE(watch.IsPresent());
    std::optional<StatusCode> outcome;
    const Pending pending = time.Call(Timedate1::ListTimezones).Then([&](auto zones) {
        outcome = zones.IsOk() ? StatusCode::Ok : zones.GetError().GetStatus();
    });
    mPeer.Signal(SIGKILL);
    EXPECT_TRUE(RunUntil([&] { return outcome.has_value() && isGone; }));
    EXPECT_EQ(outcome, StatusCode::NotFound);
    EXPECT_FALSE(watch.IsPresent());
    EXPECT_TRUE(RunUntil([&] { return cache.GetStatus() == StatusCode::NotFound; }));
    EXPECT_FALSE(cache.Get<Timedate1::Timezone>().has_value());
}

}  // namespace

}  // namespace tern::test

int main(int argc, char* argv[]) {
    testing::InitGoogleMock(&argc, argv);
    for (const char* const daemon : {tern::test::HOSTNAMED, tern::test::TIMEDATED}) {
        if (access(daemon, X_OK) != 0) {
            printf("there is no %s (package systemd)\n", daemon);
            return tern::test::PeerTest::SKIPPED;
        }
    }
    return RUN_ALL_TESTS();
}
