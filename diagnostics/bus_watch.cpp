#include "diagnostics/bus_watch.h"

#include <unistd.h>

#include <algorithm>
#include <bit>
#include <new>

#include "diagnostics/clean_text.h"
#include "diagnostics/process_facts.h"
#include "diagnostics/recording.h"
#include "diagnostics/ticks.h"

namespace mwl::Diagnostics {

namespace {

constexpr std::uint64_t NS_PER_US = 1000;

constexpr std::uint32_t HASH_BASIS = 2166136261U;
std::uint32_t Hash(std::uint32_t hash, std::string_view text) {
    for (const char c : text) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
    }
    return hash;
}

std::string_view OrEmpty(const char* text) {
    return text == nullptr ? std::string_view() : std::string_view(text);
}

/// Whether `name` is the three with a dot between the last two.
bool IsPutTogetherOf(std::string_view name, std::string_view prefix, std::string_view interface,
                     std::string_view member) {
    const std::size_t dot = member.empty() ? 0 : 1;
    return name.size() == prefix.size() + interface.size() + dot + member.size() &&
           name.substr(0, prefix.size()) == prefix &&
           name.substr(prefix.size(), interface.size()) == interface &&
           name.substr(name.size() - member.size()) == member;
}

std::size_t BucketOf(std::uint64_t nanoseconds) {
    return std::min(static_cast<std::size_t>(std::bit_width(nanoseconds / NS_PER_US)), LATENCY_BUCKETS - 1);
}

int NeverCalled(sd_event_source*, uint64_t, void*) {
    return 0;
}

}  // namespace

BusWatch::BusWatch() {
    mMembers.emplace_back();
    mMembers[0].name = "(others)";
}

int BusWatch::Begin(sd_bus* bus) {
    mThreadId = static_cast<std::uint32_t>(gettid());
    mWatchdogNs = ReadWatchdogNs();
    Recording::SetBusThread();
    sd_event_source* source = nullptr;
    int r =
        sd_event_add_time(sd_bus_get_event(bus), &source, CLOCK_MONOTONIC, UINT64_MAX, 0, NeverCalled, this);
    decltype(mTurn) turn(source);
    if (r >= 0) {
        r = sd_event_source_set_prepare(source, OnTurn);
    }
    sd_bus_slot* slot = nullptr;
    if (r >= 0) {
        r = sd_bus_add_filter(bus, &slot, OnMessage, this);
    }
    if (r < 0) {
        return r;
    }
    mFilter.reset(slot);
    mTurn = std::move(turn);
    return 0;
}

BusThreadFigures BusWatch::GetFigures() const {
    BusThreadFigures figures;
    figures.threadId = mThreadId;
    figures.handled = mHandled;
    figures.turns = mTurns;
    figures.longestTurnUs = mLongestTurnNs / NS_PER_US;
    if (mRunning != NOTHING) {
        figures.running = mMembers[mRunning].name;
        figures.runningUs = (NanosecondsOf(CLOCK_MONOTONIC) - mRunningSinceNs) / NS_PER_US;
    }
    figures.watchdogUs = mWatchdogNs / NS_PER_US;
    // The loop reports at three quarters of the period at the latest, if no turn is in its way.
    const std::uint64_t spare = mWatchdogNs / 4;
    figures.watchdogMarginUs = (spare - std::min(spare, mLongestTurnNs)) / NS_PER_US;
    for (const Member& member : mMembers) {
        if (member.handled > 0) {
            figures.members.push_back({member.name,
                                       member.handled,
                                       member.totalNs / NS_PER_US,
                                       member.longestNs / NS_PER_US,
                                       {member.latency.begin(), member.latency.end()}});
        }
    }
    std::sort(figures.members.begin(), figures.members.end(),
              [](const MemberFigures& a, const MemberFigures& b) { return a.totalUs > b.totalUs; });
    return figures;
}

int BusWatch::OnMessage(sd_bus_message* message, void* userdata, sd_bus_error*) {
    static_cast<BusWatch*>(userdata)->BeginMessage(message);
    return 0;  // for whom it is meant
}

int BusWatch::OnTurn(sd_event_source* source, void* userdata) {
    auto& self = *static_cast<BusWatch*>(userdata);
    const std::uint64_t now = NanosecondsOf(CLOCK_MONOTONIC);
    if (self.mRunning != NOTHING) {
        self.EndMessage(now);
    }
    self.CountTurn(sd_event_source_get_event(source), now);
    return 0;
}

void BusWatch::BeginMessage(sd_bus_message* message) {
    uint8_t type = 0;
    static_cast<void>(sd_bus_message_get_type(message, &type));  // a message has one
    std::size_t index = 0;
    if (type == SD_BUS_MESSAGE_METHOD_CALL || type == SD_BUS_MESSAGE_SIGNAL) {
        index = FindMember(type == SD_BUS_MESSAGE_SIGNAL ? "signal " : "",
                           OrEmpty(sd_bus_message_get_interface(message)),
                           OrEmpty(sd_bus_message_get_member(message)));
    } else {
        index = FindMember("replies", {}, {});
    }
    const std::uint64_t now = NanosecondsOf(CLOCK_MONOTONIC);
    if (mRunning != NOTHING) {
        EndMessage(now);
    }
    Member& member = mMembers[index];
    mRunning = index;
    mRunningSinceNs = now;
    ++mHandled;
    if (Recording::IsOn()) {
        if (member.recorded == 0) {
            member.recorded = Recording::Intern(member.name);
            Recording::SetBusThread();
        }
        Recording::RecordCallBegan(member.recorded);
    }
}

void BusWatch::EndMessage(std::uint64_t nowNs) {
    Member& member = mMembers[mRunning];
    const std::uint64_t duration = nowNs - mRunningSinceNs;
    mRunning = NOTHING;
    ++member.handled;
    member.totalNs += duration;
    member.longestNs = std::max(member.longestNs, duration);
    ++member.latency[BucketOf(duration)];
    if (member.recorded != 0) {
        Recording::RecordCallEnded(member.recorded);
    }
}

void BusWatch::CountTurn(sd_event* event, std::uint64_t nowNs) {
    // The loop's own time is that of the end of its last sleep.
    std::uint64_t awakeUs = 0;
    if (mTurns++ > 0 && sd_event_now(event, CLOCK_MONOTONIC, &awakeUs) == 0 && nowNs > awakeUs * NS_PER_US) {
        mLongestTurnNs = std::max(mLongestTurnNs, nowNs - awakeUs * NS_PER_US);
    }
}

std::size_t BusWatch::FindMember(std::string_view prefix, std::string_view interface,
                                 std::string_view member) {
    const std::uint32_t hash = Hash(Hash(Hash(HASH_BASIS, prefix), interface), member);
    std::size_t place = hash % PLACES;
    for (; mPlaces[place] != 0; place = (place + 1) % PLACES) {
        const Member& known = mMembers[mPlaces[place]];
        if (known.hash == hash && IsPutTogetherOf(known.name, prefix, interface, member)) {
            return mPlaces[place];
        }
    }
    if (mMembers.size() > MEMBERS) {
        return 0;
    }
    // Called by sd-bus, which nothing may be thrown through.
    try {
        Member added;
        added.hash = hash;
        added.name.append(prefix).append(interface).append(member.empty() ? "" : ".").append(member);
        mMembers.push_back(std::move(added));
    } catch (const std::bad_alloc&) {
        return 0;
    }
    mPlaces[place] = static_cast<std::uint16_t>(mMembers.size() - 1);
    return mPlaces[place];
}

}  // namespace mwl::Diagnostics
