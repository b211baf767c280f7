#include <algorithm>
#include <deque>
#include <optional>

#include "commands.h"
#include "event_lines.h"
#include "interrupt.h"
#include "json.h"
#include "look.h"
#include "output.h"
#include "service.h"
#include "text.h"

namespace ternctl {

using Diagnostics::RecordedEvent;
using namespace std::chrono_literals;

namespace {

/// Events that one answer holds at most.
constexpr std::uint32_t MOST = 1000;
/// Answers at a stretch: twice what the largest recorder holds, and whoever records faster than this reads
/// keeps nobody for ever.
constexpr int MOST_ANSWERS = 1000;
constexpr int MOST_ANSWERS_WHEN_FOLLOWING = 10;
/// Of --follow unless --last says something else.
constexpr std::uint64_t LAST_WHEN_FOLLOWING = 10;
constexpr auto FOLLOW_PERIOD = 500ms;

/// Whether it is only there because somebody looks.
bool ComesFromLooking(const RecordedEvent& event) {
    return event.name == std::string(Diagnostics::Diagnostics1::NAME) + ".GetEvents";
}

/// The events after `after`, up to `last`, in at most so many answers: `take(events, lost)` gets them in
/// pieces. Returns the number to go on with.
template <class Take>
std::uint64_t ReadAll(const Service& service, std::uint64_t after, std::uint64_t last, int answers,
                      Take take) {
    for (; answers > 0; --answers) {
        const auto [next, lost, events] = service.GetEvents(after, MOST);
        take(events, lost);
        // A service that stays where it is would keep us for ever.
        if (events.size() < MOST || next <= after || next >= last) {
            return std::max(next, after);
        }
        after = next;
    }
    return after;
}

/// Behind which the last `count` of `written` events begin.
std::uint64_t FindBeginOfLast(std::uint64_t written, std::uint64_t count) {
    return written > count ? written - count : 0;
}

ExitStatus PrintOnce(const Options& options, const Service& service) {
    std::deque<RecordedEvent> events;
    std::uint64_t lost = 0;
    const std::uint64_t written = service.TakeSnapshot().recorder.events;
    const std::uint64_t begin = options.last ? FindBeginOfLast(written, *options.last) : 0;
    const std::uint64_t next = ReadAll(service, begin, written, MOST_ANSWERS,
                                       [&](const std::vector<RecordedEvent>& more, std::uint64_t moreLost) {
                                           lost += moreLost;
                                           events.insert(events.end(), more.begin(), more.end());
                                           while (options.last && events.size() > *options.last) {
                                               events.pop_front();
                                           }
                                       });
    if (options.isJson) {
        JsonWriter json;
        json.Begin('{').Add("Service", service.GetName()).Add("Lost", lost).Add("Next", next).Key("Events");
        json.Begin('[');
        for (const RecordedEvent& event : events) {
            Write(json, event);
        }
        PrintLine(json.End(']').End('}').GetText());
        return ExitStatus::Done;
    }
    const Look look = Look::OfOutput();
    std::string text = lost > 0 ? DescribeLost(lost) + '\n' : "";
    for (const RecordedEvent& event : events) {
        text += Describe(event, look) + '\n';
    }
    Print(text);
    return ExitStatus::Done;
}

/// Goes on over restarts of the service until it is interrupted.
class Follower {
public:
    Follower(const Options& options, const Session& session) : mOptions(options), mSession(session) {}

    ExitStatus Run() {
        const Interrupt interrupt;
        mService.emplace(mSession, mOptions.arguments[0]);
        mAfter = FindBeginOfLast(mService->TakeSnapshot().recorder.events,
                                 mOptions.last.value_or(LAST_WHEN_FOLLOWING));
        // Events that were overwritten before the first look do not count as missed.
        bool isFirst = true;
        do {
            try {
                Look(std::exchange(isFirst, false));
            } catch (const Failure& failure) {
                Bear(failure);
            }
        } while (interrupt.WaitUntil(Interrupt::Clock::now() + FOLLOW_PERIOD) == Interrupt::Reason::Time);
        return ExitStatus::Done;
    }

private:
    void Look(bool isFirst) {
        if (!mService) {
            mService.emplace(mSession, mOptions.arguments[0]);
            mAfter = 0;
            Complain("'" + mService->GetName() + "' is there again");
            mTold.clear();
        }
        mAfter = ReadAll(*mService, mAfter, UINT64_MAX, MOST_ANSWERS_WHEN_FOLLOWING,
                         [&](const std::vector<RecordedEvent>& events, std::uint64_t lost) {
                             PrintPiece(events, isFirst ? 0 : lost);
                             if (!events.empty()) {
                                 // The next answer may not come.
                                 mAfter = std::max(mAfter, events.back().sequence);
                             }
                         });
        mTold.clear();
    }

    void PrintPiece(const std::vector<RecordedEvent>& events, std::uint64_t lost) {
        std::string text;
        if (lost > 0) {
            JsonWriter json;
            text +=
                mOptions.isJson ? json.Begin('{').Add("Lost", lost).End('}').GetText() : DescribeLost(lost);
            text += '\n';
        }
        for (const RecordedEvent& event : events) {
            if (!mOptions.isFull && ComesFromLooking(event)) {
                continue;
            }
            JsonWriter json;
            if (mOptions.isJson) {
                Write(json, event);
            }
            text += (mOptions.isJson ? json.GetText() : Describe(event, mLook)) + '\n';
        }
        Print(text);
    }

    /// A service may go and come back, or not answer for a while; each state is reported once.
    void Bear(const Failure& failure) {
        const Cause cause = failure.GetCause();
        const bool hasLeft =
            cause == Cause::NotThere || cause == Cause::NoDiagnostics || cause == Cause::Left;
        if (!hasLeft && cause != Cause::Late) {
            throw failure;
        }
        if (hasLeft) {
            mService.reset();
        }
        if (mTold != failure.what()) {
            mTold = failure.what();
            Complain(mTold + "; waiting for it");
        }
    }

    const Options& mOptions;
    const Session& mSession;
    const ternctl::Look mLook = ternctl::Look::OfOutput();
    std::optional<Service> mService;
    std::uint64_t mAfter = 0;
    std::string mTold;
};

}  // namespace

ExitStatus RunEvents(const Options& options) {
    if (options.pid) {
        return RunProcessEvents(options);
    }
    const Session session(options);
    if (options.isFollowing) {
        return Follower(options, session).Run();
    }
    return PrintOnce(options, Service(session, options.arguments[0]));
}

}  // namespace ternctl
