#include "diagnostics/bus_watch.h"

#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>
#include <utility>

#include "diagnostics/clean_text.h"
#include "diagnostics/process_facts.h"
#include "diagnostics/recording.h"
#include "diagnostics/ticks.h"

namespace mwl::Diagnostics {

namespace {

/// Of texts that come from peers, as many as there is room for: mixed well enough for a table.
std::uint64_t Hash(std::uint64_t hash, std::string_view text) {
    constexpr std::uint64_t FACTOR = 0x9e3779b97f4a7c15;
    const auto mix = [&hash](std::uint64_t word) {
        hash = (hash ^ word) * FACTOR;
        hash ^= hash >> 32U;
    };
    std::uint64_t word = 0;
    for (; text.size() >= sizeof word; text.remove_prefix(sizeof word)) {
        std::memcpy(&word, text.data(), sizeof word);
        mix(word);
    }
    word = std::uint64_t{text.size()} << 56U;
    std::memcpy(&word, text.data(), text.size());
    mix(word);
    return hash;
}

const char* OrEmpty(const char* text) {
    return text == nullptr ? "" : text;
}

/// Whether `name` is the three with a dot between the last two.
bool IsPutTogetherOf(std::string_view name, std::string_view prefix, std::string_view interface,
                     std::string_view member) {
    const std::size_t dot = member.empty() ? 0 : 1;
    // The end first, as it is what members differ in.
    return name.size() == prefix.size() + interface.size() + dot + member.size() && name.ends_with(member) &&
           name.starts_with(prefix) &&
           std::memcmp(name.data() + prefix.size(), interface.data(), interface.size()) == 0;
}

std::size_t BucketOf(std::uint64_t us) {
    return std::min(static_cast<std::size_t>(std::bit_width(us)), LATENCY_BUCKETS - 1);
}

int NeverCalled(sd_event_source*, uint64_t, void*) {
    return 0;
}

}  // namespace

BusWatch::BusWatch() {
    mMembers.emplace_back();
    mMembers[0].name = "(others)";
}

BusWatch::~BusWatch() {
    // In a handler, or after one that ended the loop: nobody else would end what was begun there.
    if (mRunning != NOTHING) {
        EndMessage(Now());
    }
    if (mIsTold) {
        Recording::ForgetTurns(mBus);
    }
}

int BusWatch::Begin(sd_bus* bus) {
    mBus = bus;
    mThreadId = static_cast<std::uint32_t>(gettid());
    mWatchdogNs = ReadWatchdogNs();
    Recording::SetBusThread();
    if (Ring& ring = Recording::GetRing()) {
        ring.Calibrate();
        constexpr std::uint64_t MANY = std::uint64_t{1} << 40U;
        mIsCounter = ring.IsCounter();
        mIsRecordersClock = true;
        mUsPerTick = static_cast<double>(ring.ToNanoseconds(MANY)) / static_cast<double>(MANY * NS_PER_US);
    }
    sd_bus_slot* slot = nullptr;
    int r = sd_bus_add_filter(bus, &slot, OnMessage, this);
    mFilter.reset(slot);
    if (r >= 0) {
        mIsTold = Recording::IsOn() && Recording::WatchTurns(bus, OnTurnTold, this);
        r = mIsTold ? 0 : AddTurnSource();
    }
    if (r < 0) {
        mFilter.reset();
    }
    return std::min(r, 0);
}

int BusWatch::AddTurnSource() {
    sd_event_source* source = nullptr;
    int r =
        sd_event_add_time(sd_bus_get_event(mBus), &source, CLOCK_MONOTONIC, UINT64_MAX, 0, NeverCalled, this);
    mTurn.reset(source);
    if (r >= 0) {
        r = sd_event_source_set_prepare(source, OnTurn);
    }
    if (r < 0) {
        mTurn.reset();
    }
    return r;
}

int BusWatch::OnMessage(sd_bus_message* message, void* userdata, sd_bus_error*) {
    static_cast<BusWatch*>(userdata)->BeginMessage(message);
    return 0;  // for whom it is meant
}

int BusWatch::OnTurn(sd_event_source*, void* userdata) {
    auto& self = *static_cast<BusWatch*>(userdata);
    self.EndTurn(self.Now());
    return 0;
}

void BusWatch::OnTurnTold(void* argument, std::uint64_t ticks) {
    auto& self = *static_cast<BusWatch*>(argument);
    self.mTurn.reset();  // of a time without a recorder
    self.EndTurn(self.mIsRecordersClock ? ticks : self.Now());
}

void BusWatch::EndTurn(std::uint64_t now) {
    if (mRunning != NOTHING) {
        EndMessage(now);
    }
    CountTurn(now);
}

void BusWatch::BeginMessage(sd_bus_message* message) {
    std::uint8_t type = 0;
    static_cast<void>(sd_bus_message_get_type(message, &type));  // a message has one
    const bool isNamed = type == SD_BUS_MESSAGE_METHOD_CALL || type == SD_BUS_MESSAGE_SIGNAL;
    const std::size_t index = isNamed ? FindMember(type, OrEmpty(sd_bus_message_get_interface(message)),
                                                   OrEmpty(sd_bus_message_get_member(message)))
                                      : FindMember(SD_BUS_MESSAGE_METHOD_RETURN, "", "");
    const bool isRecording = Recording::IsOn();
    if (__builtin_expect(!isRecording && mTurn == nullptr, 0)) {
        // Nobody has told of the end of the former message since the recorder was switched off.
        mRunning = NOTHING;
        static_cast<void>(AddTurnSource());  // without memory now, perhaps with the next message
    }
    const std::uint64_t now = Now();
    if (mRunning != NOTHING) {
        EndMessage(now);
    }
    Member& member = mMembers[index];
    mRunning = index;
    mRunningSince = now;
    ++mHandled;
    if (isRecording) {
        if (member.recorded == 0) {
            member.recorded = Recording::Intern(member.name);
            Recording::SetBusThread();
            // Of a recorder that was begun later.
            mIsTold = mIsTold || Recording::WatchTurns(mBus, OnTurnTold, this);
        }
        Recording::RecordCallBegan(member.recorded, mIsRecordersClock ? now : Recording::GetRing().Ticks());
    }
}

void BusWatch::EndMessage(std::uint64_t now) {
    Member& member = mMembers[mRunning];
    const std::uint64_t duration = RunningTicks(now);
    mRunning = NOTHING;
    ++member.handled;
    member.totalTicks += duration;
    member.longestTicks = std::max(member.longestTicks, duration);
    ++member.latency[BucketOf(ToUs(duration))];
    if (member.recorded != 0 && Recording::IsOn()) {
        Recording::RecordCallEnded(member.recorded, mIsRecordersClock ? now : Recording::GetRing().Ticks());
    }
}

void BusWatch::CountTurn(std::uint64_t now) {
    const std::uint64_t between = now - std::exchange(mTurnBegan, now);
    // What has passed since the last one contains the turn: it is looked at only when it may be the longest.
    if (mTurns++ == 0 || ToUs(between) <= mLongestTurnUs) {
        return;
    }
    // The loop's own time is that of the end of its last sleep.
    std::uint64_t awakeUs = 0;
    const std::uint64_t nowUs = NanosecondsOf(CLOCK_MONOTONIC) / NS_PER_US;
    sd_event* const event = sd_bus_get_event(mBus);
    if (event != nullptr && sd_event_now(event, CLOCK_MONOTONIC, &awakeUs) == 0 && nowUs > awakeUs) {
        mLongestTurnUs = std::max(mLongestTurnUs, nowUs - awakeUs);
    }
}

std::size_t BusWatch::FindMember(int type, const char* interface, const char* member) {
    // As a rule it is the same again. The member first, as it is what members differ in.
    if (type != mLast.type || std::strcmp(member, mLast.member.c_str()) != 0 ||
        std::strcmp(interface, mLast.interface.c_str()) != 0) {
        return LookUpMember(type, interface, member);
    }
    return mLast.index;
}

std::size_t BusWatch::LookUpMember(int type, const char* interface, const char* member) {
    mLast.type = 0;
    // Called by sd-bus, which nothing may be thrown through.
    try {
        mLast.interface = interface;
        mLast.member = member;
        mLast.index =
            type == SD_BUS_MESSAGE_METHOD_RETURN
                ? LookUpMember("replies", "", "")
                : LookUpMember(type == SD_BUS_MESSAGE_SIGNAL ? "signal " : "", mLast.interface, mLast.member);
        mLast.type = type;
    } catch (const std::bad_alloc&) {
        return 0;
    }
    return mLast.index;
}

std::size_t BusWatch::LookUpMember(std::string_view prefix, std::string_view interface,
                                   std::string_view member) {
    const std::uint64_t hash = Hash(Hash(Hash(0, prefix), interface), member);
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
    Member added;
    added.hash = hash;
    added.name.append(prefix).append(interface).append(member.empty() ? "" : ".").append(member);
    mMembers.push_back(std::move(added));
    mPlaces[place] = static_cast<std::uint16_t>(mMembers.size() - 1);
    return mPlaces[place];
}

}  // namespace mwl::Diagnostics
