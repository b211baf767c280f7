#include <tern/diagnostics/diagnosis.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string_view>

namespace mwl::Diagnostics {

namespace {

constexpr std::uint64_t NS_PER_SECOND = 1000000000;

/// What is told of as the cause happened no longer before the end.
constexpr std::uint64_t CAUSE_NS = 10 * NS_PER_SECOND;
/// Who is in something for longer hangs.
constexpr std::uint64_t HANGING_NS = NS_PER_SECOND;
/// Who may have been in something for so long, as nothing is known of the time from the last event on, does
/// too.
constexpr std::uint64_t PERHAPS_HANGING_NS = 10 * NS_PER_SECOND;

constexpr std::size_t LAST_MESSAGES = 2;

std::uint64_t Since(std::uint64_t begin, std::uint64_t end) {
    return end > begin ? end - begin : 0;
}

/// "0.35 s", "9.8 s", "2 min 5 s", "3 h 12 min", "5 d 2 h".
std::string Duration(std::uint64_t nanoseconds) {
    std::array<char, 48> text{};
    const std::uint64_t seconds = nanoseconds / NS_PER_SECOND;
    const double exact = static_cast<double>(nanoseconds) / static_cast<double>(NS_PER_SECOND);
    const auto two = [&](std::uint64_t large, const char* largeUnit, std::uint64_t small,
                         const char* smallUnit) {
        static_cast<void>(std::snprintf(text.data(), text.size(), "%llu %s %llu %s",
                                        static_cast<unsigned long long>(large), largeUnit,
                                        static_cast<unsigned long long>(small), smallUnit));
    };
    if (seconds < 1) {
        static_cast<void>(std::snprintf(text.data(), text.size(), "%.2f s", exact));
    } else if (seconds < 60) {
        static_cast<void>(std::snprintf(text.data(), text.size(), "%.1f s", exact));
    } else if (seconds < 3600) {
        two(seconds / 60, "min", seconds % 60, "s");
    } else if (seconds < 86400) {
        two(seconds / 3600, "h", seconds % 3600 / 60, "min");
    } else {
        two(seconds / 86400, "d", seconds % 86400 / 3600, "h");
    }
    return text.data();
}

/// "2026-11-22 18:44:01 UTC".
std::string TimeOfDay(std::uint64_t realtimeNs) {
    const auto seconds = static_cast<time_t>(realtimeNs / NS_PER_SECOND);
    tm parts{};
    std::array<char, 48> text{};
    if (gmtime_r(&seconds, &parts) == nullptr ||
        strftime(text.data(), text.size(), "%F %T UTC", &parts) == 0) {
        return "an unknown time";
    }
    return text.data();
}

std::string Quoted(const std::string& name) {
    return "'" + name + "'";
}

/// What a thread is in, as the end of "the thread was ...".
std::string WordsOf(const FlightDoing& doing) {
    const std::string name = doing.name.empty() ? "" : " " + Quoted(doing.name);
    if (doing.event == "call_began") {
        return "in the handler of" + (name.empty() ? " a message" : name);
    }
    if (doing.event == "job_began") {
        return "in a job of a thread pool";
    }
    if (doing.event == "run_began") {
        return "in a run of the component" + name;
    }
    if (doing.event == "timer_began") {
        return "in the callback of a timer";
    }
    if (doing.event == "pipe_full") {
        return "waiting for room in a message pipe that nobody reads";
    }
    return "in " + doing.event + name;
}

/// A thread, as the subject of a sentence.
std::string NameOf(const FlightThread& thread) {
    if (thread.isBusThread) {
        return "the D-Bus thread";
    }
    return thread.watchName.empty()
               ? "the thread " + Quoted(thread.name) + " (" + std::to_string(thread.id) + ")"
               : "the watched thread " + Quoted(thread.watchName);
}

/// Of what is going on now, and of what that is a part of.
std::string WordsOf(const std::vector<FlightDoing>& doing) {
    const std::string words = WordsOf(doing.back());
    return doing.size() == 1 ? words : words + ", " + WordsOf(doing.front());
}

class Examination {
public:
    Examination(const Flight& flight, std::uint64_t seenNs)
        : mFlight(flight), mLatestNs(flight.latestNs), mSeenNs(std::max(seenNs, flight.latestNs)) {}

    Diagnosis Run() {
        if (!FindException() && !FindLostBus() && !FindOrderlyEnd() && !FindBlocked() && !FindHanging() &&
            !FindUnfinished()) {
            Say("cut-off",
                "It just ended, without a word: no thread was in anything for long, no exception was seen, "
                "and nobody was "
                "about to kill it. A signal from outside, a crash or the power may have been the cause.");
            AddDoings();
            AddUnfinished();
        }
        AddTimes();
        AddMessages();
        return std::move(mDiagnosis);
    }

private:
    void Say(const char* kind, std::string sentence) {
        mDiagnosis.kind = kind;
        mDiagnosis.sentences.push_back(std::move(sentence));
    }

    bool IsNearTheEnd(std::uint64_t monotonicNs) const { return Since(monotonicNs, mLatestNs) <= CAUSE_NS; }

    const FlightEvent* FindLast(std::string_view event, std::string_view name = {}) const {
        const auto found =
            std::find_if(mFlight.events.rbegin(), mFlight.events.rend(), [&](const FlightEvent& each) {
                return each.event == event && (name.empty() || each.name == name) &&
                       IsNearTheEnd(each.monotonicNs);
            });
        return found == mFlight.events.rend() ? nullptr : &*found;
    }

    bool FindException() {
        if (FindLast("thrown") == nullptr) {
            return false;
        }
        const auto found = std::find_if(mFlight.messages.rbegin(), mFlight.messages.rend(),
                                        [](const FlightMessage& message) { return message.isException; });
        const bool isKnown = found != mFlight.messages.rend();
        std::string sentence = "An exception ended it: ";
        sentence += isKnown ? found->text : std::string("of a type that is not known");
        for (const FlightThread& thread : mFlight.threads) {
            // One that was caught has let its thread end.
            if (isKnown && thread.id == found->threadId && !thread.doing.empty()) {
                sentence += "; " + NameOf(thread) + " was " + WordsOf(thread.doing.back());
                break;
            }
        }
        Say("exception", sentence + ".");
        return true;
    }

    bool FindLostBus() {
        if (FindLast("state_changed", "lost-bus") == nullptr) {
            return false;
        }
        Say("lost-bus", "It lost its connection to the bus, and ended itself for that.");
        return true;
    }

    bool FindOrderlyEnd() {
        if (mFlight.end == FlightEnd::None) {
            return false;
        }
        if (mFlight.end == FlightEnd::Stopped) {
            Say("stopped", "It stopped in order.");
        } else {
            Say("failed", "It ended itself after a failure.");
        }
        return true;
    }

    bool FindBlocked() {
        const FlightEvent* const blocked = FindLast("blocked");
        if (blocked == nullptr) {
            return false;
        }
        std::string sentence = "The watcher killed it, as the watched thread " + Quoted(blocked->name) +
                               " had not reported for " + Duration(blocked->value);
        for (const FlightThread& thread : mFlight.threads) {
            if (thread.watchName == blocked->name && !thread.doing.empty()) {
                const FlightDoing& doing = thread.doing.back();
                sentence += "; it had been " + WordsOf(thread.doing) + " for " +
                            Duration(Since(doing.sinceNs, mLatestNs));
                break;
            }
        }
        Say("blocked", sentence + ".");
        return true;
    }

    bool IsLong(std::uint64_t sinceNs, bool isBusThread) const {
        // A thread's loop that has systemd's watchdog fed is not waited for longer than its period.
        const std::uint64_t longest = Since(sinceNs, mSeenNs);
        return Since(sinceNs, mLatestNs) >= HANGING_NS || longest >= PERHAPS_HANGING_NS ||
               (isBusThread && mFlight.watchdogNs > 0 && longest >= mFlight.watchdogNs / 2);
    }

    /// "9.0 s at least and 11.0 s at most".
    std::string Span(std::uint64_t sinceNs) const {
        const std::uint64_t least = Since(sinceNs, mLatestNs);
        const std::uint64_t most = Since(sinceNs, mSeenNs);
        return Duration(least) + " at least" + (most > least ? " and " + Duration(most) + " at most" : "");
    }

    /// Each thread that hung, the one that had done so for the longest time first.
    bool FindHanging() {
        std::vector<const FlightThread*> hanging;
        for (const FlightThread& thread : mFlight.threads) {
            if (!thread.doing.empty() && IsLong(thread.doing.back().sinceNs, thread.isBusThread)) {
                hanging.push_back(&thread);
            }
        }
        std::sort(hanging.begin(), hanging.end(), [](const FlightThread* a, const FlightThread* b) {
            // The D-Bus thread is the one that systemd looks at.
            return a->isBusThread != b->isBusThread ? a->isBusThread
                                                    : a->doing.back().sinceNs < b->doing.back().sinceNs;
        });
        constexpr std::size_t MOST = 2;
        for (std::size_t i = 0; i < std::min(hanging.size(), MOST); ++i) {
            const FlightThread& thread = *hanging[i];
            const FlightDoing& doing = thread.doing.back();
            Say("hanging", "T" + NameOf(thread).substr(1) + " was " + WordsOf(thread.doing) +
                               (thread.doing.size() > 1 ? "," : "") + " when it ended, for " +
                               Span(doing.sinceNs) + ".");
        }
        return !hanging.empty();
    }

    /// When the service began to start, where it never ran, or to stop; null for neither. `words` says which.
    const FlightEvent* GetUnfinished(const char*& words) const {
        const auto state =
            std::find_if(mFlight.events.rbegin(), mFlight.events.rend(),
                         [](const FlightEvent& event) { return event.event == "state_changed"; });
        if (state == mFlight.events.rend() || (state->name != "starting" && state->name != "stopping")) {
            return nullptr;
        }
        words = state->name == "starting" ? "It had not finished its start when it ended"
                                          : "It had not finished its stop when it ended";
        return &*state;
    }

    bool FindUnfinished() {
        const char* words = nullptr;
        const FlightEvent* const state = GetUnfinished(words);
        if (state == nullptr || !IsLong(state->monotonicNs, true)) {
            return false;
        }
        Say("hanging", words + (", after " + Span(state->monotonicNs)) + ".");
        AddDoings();
        return true;
    }

    void AddUnfinished() {
        const char* words = nullptr;
        if (GetUnfinished(words) != nullptr) {
            mDiagnosis.sentences.push_back(words + std::string("."));
        }
    }

    /// What the threads were in at the last moment, the latest first: where a crash has most likely been, and
    /// what a start or stop waited for.
    void AddDoings() {
        std::vector<const FlightThread*> busy;
        for (const FlightThread& thread : mFlight.threads) {
            if (!thread.doing.empty()) {
                busy.push_back(&thread);
            }
        }
        std::sort(busy.begin(), busy.end(), [](const FlightThread* a, const FlightThread* b) {
            return a->doing.back().sinceNs > b->doing.back().sinceNs;
        });
        constexpr std::size_t MOST = 3;
        std::string sentence;
        for (std::size_t i = 0; i < std::min(busy.size(), MOST); ++i) {
            sentence += (i == 0 ? "When it was last heard of, " : "; ") + NameOf(*busy[i]) + " was " +
                        WordsOf(busy[i]->doing.back());
        }
        if (!sentence.empty()) {
            mDiagnosis.sentences.push_back(sentence + ".");
        }
    }

    void AddTimes() {
        const std::uint64_t end = mFlight.end == FlightEnd::None ? mLatestNs : mFlight.endedNs;
        // Unsigned: a hostile ring's numbers may be anything.
        const std::uint64_t realtime = end + static_cast<std::uint64_t>(mFlight.toRealtimeNs);
        std::string sentence = "Process " + std::to_string(mFlight.pid) + " (" + mFlight.program +
                               (mFlight.version.empty() ? "" : " " + mFlight.version) + ") " +
                               (mFlight.end == FlightEnd::None ? "was last heard of at " : "ended at ") +
                               TimeOfDay(realtime);
        if (mFlight.processStartedNs > 0 && realtime > mFlight.processStartedNs) {
            sentence += ", " + Duration(realtime - mFlight.processStartedNs) + " after its start";
        }
        if (mFlight.end == FlightEnd::None && !mFlight.events.empty()) {
            const FlightEvent& last = mFlight.events.back();
            sentence +=
                "; its last event was " + last.event + (last.name.empty() ? "" : " of " + Quoted(last.name));
        }
        mDiagnosis.sentences.push_back(sentence + ".");
    }

    void AddMessages() {
        std::size_t told = 0;
        for (auto message = mFlight.messages.rbegin();
             message != mFlight.messages.rend() && told < LAST_MESSAGES; ++message) {
            if (!message->isException) {
                mDiagnosis.sentences.push_back((told++ == 0
                                                    ? "Its last message of warning level or worse, at "
                                                    : "The one before it, at ") +
                                               TimeOfDay(message->realtimeNs) + ": " + message->text);
            }
        }
    }

    const Flight& mFlight;
    const std::uint64_t mLatestNs;
    const std::uint64_t mSeenNs;
    Diagnosis mDiagnosis;
};

}  // namespace

Diagnosis Diagnose(const Flight& flight, std::uint64_t seenNs) {
    return Examination(flight, seenNs).Run();
}

}  // namespace mwl::Diagnostics
