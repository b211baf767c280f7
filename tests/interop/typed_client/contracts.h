#pragma once

#include <tern/typed/contract.h>
#include <tern/typed/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "examples/type-gallery/contract.h"

// How values of the gallery compare; its contract needs none of these.
namespace type_gallery::values {

inline bool operator==(const Structure& a, const Structure& b) {
    return a.number == b.number && a.text == b.text && a.level == b.level;
}
inline bool operator==(const Series& a, const Series& b) {
    return a.name == b.name && a.points == b.points;
}
inline bool operator==(const Nested& a, const Nested& b) {
    return a.number == b.number && a.series == b.series;
}
inline bool operator==(const Options& a, const Options& b) {
    return a.seconds == b.seconds && a.note == b.note;
}
inline bool operator==(const StrictOptions& a, const StrictOptions& b) {
    return a.seconds == b.seconds && a.note == b.note;
}

}  // namespace type_gallery::values

namespace tern::test {

/// What a service does not keep: it has the interface, with other types than these.
struct Odd1 {
    static constexpr const char* NAME = "com.example.Odd1";

    /// Answered with the text "seven".
    static constexpr mwl::Typed::Method<std::uint32_t()> Number{"Number", {"number"}};
    /// Takes a number.
    static constexpr mwl::Typed::Method<void(std::string)> Take{"Take", {"text"}};
    /// Sends Said.
    static constexpr mwl::Typed::Method<void()> Say{"Say"};
    /// Changes Mood, and announces that without the value.
    static constexpr mwl::Typed::Method<void()> Turn{"Turn"};
    /// The service ends, without an answer.
    static constexpr mwl::Typed::Method<void()> Leave{"Leave"};
    /// The service has no such method.
    static constexpr mwl::Typed::Method<void()> Missing{"Missing"};
    /// Is the text "high".
    static constexpr mwl::Typed::Property<std::uint32_t> Level{"Level", mwl::Typed::EMITS};
    /// 1 at first; this one is as it says.
    static constexpr mwl::Typed::Property<std::uint32_t> Mood{"Mood", mwl::Typed::INVALIDATES};
    /// Carries a text.
    static constexpr mwl::Typed::Signal<std::uint32_t> Said{"Said", {"number"}};

    static constexpr mwl::Typed::Members<Number, Take, Say, Turn, Leave, Missing, Level, Mood, Said> ALL{};
};

/// What of systemd's hostnamed is asked for.
struct Hostname1 {
    static constexpr const char* NAME = "org.freedesktop.hostname1";

    static constexpr mwl::Typed::Method<void(std::string, bool)> SetHostname{"SetHostname",
                                                                             {"hostname", "interactive"}};
    static constexpr mwl::Typed::Method<std::string()> Describe{"Describe", {"json"}};
    static constexpr mwl::Typed::Property<std::string> Hostname{"Hostname", mwl::Typed::EMITS};
    static constexpr mwl::Typed::Property<std::string> KernelName{"KernelName", mwl::Typed::CONSTANT};
    static constexpr mwl::Typed::Property<std::string> KernelRelease{"KernelRelease", mwl::Typed::CONSTANT};
    static constexpr mwl::Typed::Property<std::string> StaticHostname{"StaticHostname", mwl::Typed::EMITS};

    static constexpr mwl::Typed::Members<SetHostname, Describe, Hostname, KernelName, KernelRelease,
                                         StaticHostname>
        ALL{};
};

/// What of systemd's timedated is asked for.
struct Timedate1 {
    static constexpr const char* NAME = "org.freedesktop.timedate1";

    static constexpr mwl::Typed::Method<std::vector<std::string>()> ListTimezones{"ListTimezones",
                                                                                  {"timezones"}};
    static constexpr mwl::Typed::Method<void(std::string, bool)> SetTimezone{"SetTimezone",
                                                                             {"timezone", "interactive"}};
    static constexpr mwl::Typed::Method<void(bool, bool)> SetNTP{"SetNTP", {"use_ntp", "interactive"}};
    static constexpr mwl::Typed::Property<std::string> Timezone{"Timezone", mwl::Typed::EMITS};
    static constexpr mwl::Typed::Property<bool> LocalRTC{"LocalRTC", mwl::Typed::EMITS};
    static constexpr mwl::Typed::Property<bool> CanNTP{"CanNTP"};
    static constexpr mwl::Typed::Property<bool> NTP{"NTP", mwl::Typed::EMITS};
    static constexpr mwl::Typed::Property<bool> NTPSynchronized{"NTPSynchronized"};
    static constexpr mwl::Typed::Property<std::uint64_t> TimeUSec{"TimeUSec"};
    static constexpr mwl::Typed::Property<std::uint64_t> RTCTimeUSec{"RTCTimeUSec"};

    static constexpr mwl::Typed::Members<ListTimezones, SetTimezone, SetNTP, Timezone, LocalRTC, CanNTP, NTP,
                                         NTPSynchronized, TimeUSec, RTCTimeUSec>
        ALL{};
};

/// The same object, of which one asks for types that it does not have.
struct WrongTimedate1 {
    static constexpr const char* NAME = Timedate1::NAME;

    static constexpr mwl::Typed::Method<std::string()> ListTimezones{"ListTimezones", {"timezones"}};
    static constexpr mwl::Typed::Method<void(std::string)> SetTimezone{"SetTimezone", {"timezone"}};
    static constexpr mwl::Typed::Property<bool> Timezone{"Timezone", mwl::Typed::EMITS};
    static constexpr mwl::Typed::Property<bool> NTP{"NTP", mwl::Typed::EMITS};

    static constexpr mwl::Typed::Members<ListTimezones, SetTimezone, Timezone, NTP> ALL{};
};

}  // namespace tern::test
