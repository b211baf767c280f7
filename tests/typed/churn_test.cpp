#include <gtest/gtest.h>
#include <tern/typed/bus.h>
#include <tern/typed/implements.h>
#include <tern/typed/reply.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "typed/served_bus.h"

namespace mwl::Typed {
namespace {

using tern::test::Peer;
using tern::test::Served;
using tern::test::WaitUntil;

using Number = std::uint32_t;

constexpr const char* CELL = "com.example.Cell1";
constexpr const char* ROOT = "/com/example";
constexpr const char* PROPERTIES = "org.freedesktop.DBus.Properties";

constexpr std::size_t MAKERS = 2;
constexpr std::size_t OBJECTS = 150;  ///< of each maker
constexpr std::size_t KEPT = 6;       ///< by each maker, at most
constexpr std::size_t PATHS = 10;     ///< of each maker, each used again and again
constexpr std::size_t ANSWERERS = 2;
constexpr std::size_t CALLERS = 2;
constexpr std::size_t CALLS = 700;       ///< of each caller
constexpr std::size_t AT_A_TIME = 16;    ///< of each caller; all callers' stay below Bus::OPEN_CALLS
constexpr std::size_t FIRST_LOOKS = 40;  ///< a caller looks at all objects after so many calls

struct Cell1 {
    static constexpr const char* NAME = CELL;
    static constexpr Method<Number(Number)> Now{"Now", {"number", "next"}, OPEN};
    static constexpr Method<Number(Number)> Later{"Later", {"number", "next"}, OPEN};
    static constexpr Method<void()> End{"End", {}, OPEN};
    static constexpr Property<Number> Level{"Level"};
    static constexpr Members<Now, Later, End, Level> ALL{};
};

/// What the callers are to see, told by those who did it.
struct Tally {
    std::atomic<std::size_t> made{0};
    std::atomic<std::size_t> alive{0};
    std::atomic<std::size_t> called{0};
    std::atomic<std::size_t> now{0};
    std::atomic<std::size_t> later{0};
    std::atomic<std::size_t> ended{0};
    std::atomic<std::size_t> returned{0};
    std::atomic<std::size_t> failed{0};
    std::atomic<std::size_t> dropped{0};
};

struct Question {
    Reply<Number> reply;
    Number number;
};

/// Workers that answer what `Later` gave them, or do not.
class Answerers {
public:
    explicit Answerers(Tally& tally) : mTally(tally) {
        for (std::size_t i = 0; i < ANSWERERS; ++i) {
            mThreads.emplace_back([this] { Main(); });
        }
    }
    ~Answerers() {
        {
            const std::lock_guard lock(mMutex);
            mIsEnding = true;
        }
        mCondition.notify_all();
        for (std::thread& thread : mThreads) {
            thread.join();
        }
    }
    Answerers(const Answerers&) = delete;
    Answerers& operator=(const Answerers&) = delete;

    void Ask(Question question) {
        {
            const std::lock_guard lock(mMutex);
            mQuestions.push_back(std::move(question));
        }
        mCondition.notify_one();
    }

private:
    void Main() {
        while (true) {
            std::optional<Question> question;
            {
                std::unique_lock lock(mMutex);
                mCondition.wait(lock, [this] { return mIsEnding || !mQuestions.empty(); });
                if (mQuestions.empty()) {
                    return;
                }
                question = std::move(mQuestions.front());
                mQuestions.pop_front();
            }
            const Number number = question->number;
            // Counted first: the caller sees it as soon as it is done.
            switch (number % 4) {
                case 0:
                    ++mTally.dropped;
                    question.reset();
                    break;
                case 1:
                    ++mTally.failed;
                    question->reply.Fail(Error("com.example.Error.Tired", "not now"));
                    break;
                default:
                    ++mTally.returned;
                    question->reply.Return(number + 1);
            }
        }
    }

    Tally& mTally;
    std::mutex mMutex;
    std::condition_variable mCondition;
    std::deque<Question> mQuestions;
    bool mIsEnding = false;
    std::vector<std::thread> mThreads;
};

/// Those that end themselves, by path. D-Bus thread only.
using Selves = std::map<std::string, Exported>;

class Cell final : public Implements<Cell, Cell1> {
public:
    Cell(Tally& tally, Answerers& answerers, Selves& selves)
        : mTally(tally), mAnswerers(answerers), mSelves(selves) {
        ++mTally.made;
        ++mTally.alive;
    }
    ~Cell() override { --mTally.alive; }
    Cell(const Cell&) = delete;
    Cell& operator=(const Cell&) = delete;

    static constexpr auto Describe() {
        return Bindings<Bind<Cell1::Now, &Cell::Now>, Bind<Cell1::Later, &Cell::Later>,
                        Bind<Cell1::End, &Cell::End>, Bind<Cell1::Level, &Cell::mLevel>>();
    }

private:
    Number Now(Number number) {
        ++mTally.now;
        mLevel = number;
        Changed<Cell1::Level>();
        return number + 1;
    }
    void Later(Reply<Number> reply, Number number) {
        ++mTally.later;
        mAnswerers.Ask({std::move(reply), number});
    }
    /// Of one that a maker keeps, this does nothing.
    void End() {
        ++mTally.ended;
        mSelves.erase(GetPath());
        mLevel = 0;  // still there
    }

    Tally& mTally;
    Answerers& mAnswerers;
    Selves& mSelves;
    Number mLevel = 0;
};

/// The paths that callers try; some have no object just now.
std::string PathOf(std::size_t maker, std::size_t number) {
    return std::string(ROOT) + "/maker" + std::to_string(maker) + "/" + std::to_string(number % PATHS);
}

/// Makes objects on the D-Bus thread, in step with the calls, and drops them here. Every fifth ends itself,
/// or is ended for its successor.
void MakeAndDrop(Served& served, Tally& tally, Answerers& answerers, Selves& selves, std::size_t maker) {
    std::deque<Exported> kept;
    for (std::size_t i = 0; i < OBJECTS; ++i) {
        ASSERT_TRUE(WaitUntil(
            [&] { return tally.called * OBJECTS >= i * CALLERS * CALLS || testing::Test::HasFailure(); }));
        std::promise<Exported> done;
        auto exported = done.get_future();
        ASSERT_TRUE(served.typed->Post([&, path = PathOf(maker, i)] {
            const bool endsItself = i % 5 == 4;
            if (endsItself) {
                selves.erase(path);
            }
            Exported it = served.typed->Export(path, std::make_unique<Cell>(tally, answerers, selves));
            EXPECT_EQ(it.GetStatus(), StatusCode::Ok);
            if (endsItself) {
                selves.emplace(path, std::move(it));
            }
            done.set_value(std::move(it));
        }));
        if (Exported it = exported.get()) {
            kept.push_back(std::move(it));
        }
        if (kept.size() > KEPT) {
            kept.pop_front();
        }
    }
}

/// What came of the calls of one caller.
struct Answers {
    std::size_t now = 0;
    std::size_t later = 0;
    std::size_t ended = 0;
    std::size_t failed = 0;
    std::size_t dropped = 0;
    std::size_t read = 0;
    std::size_t gone = 0;
};

enum class Kind { Now, Later, Get, GetAll, End };

struct Call {
    Kind kind = Kind::Now;
    Number number = 0;
    std::vector<std::string> answers;
};

void Count(const Call& call, Answers& answers) {
    ASSERT_EQ(call.answers.size(), 1U);
    const std::string& answer = call.answers[0];
    const bool isExpected = answer == std::to_string(call.number + 1);
    if (answer.starts_with("org.freedesktop.DBus.Error.Unknown")) {
        ++answers.gone;
    } else if (call.kind == Kind::Now && isExpected) {
        ++answers.now;
    } else if (call.kind == Kind::Later && isExpected && call.number % 4 > 1) {
        ++answers.later;
    } else if (call.kind == Kind::Later && call.number % 4 == 0 &&
               answer == "org.freedesktop.DBus.Error.Failed: the service dropped the call") {
        ++answers.dropped;
    } else if (call.kind == Kind::Later && call.number % 4 == 1 &&
               answer == "com.example.Error.Tired: not now") {
        ++answers.failed;
    } else if (call.kind == Kind::End && answer.empty()) {
        ++answers.ended;
    } else if ((call.kind == Kind::Get && answer.find_first_not_of("0123456789") == std::string::npos) ||
               (call.kind == Kind::GetAll && answer == "type a")) {
        ++answers.read;
    } else {
        ADD_FAILURE() << "call " << static_cast<int>(call.kind) << " of " << call.number << ": " << answer;
    }
}

/// Calls what may be there, many at a time; each call has one answer.
void CallAll(Answers& answers, Tally& tally, std::size_t caller) {
    Peer peer;
    std::deque<Call> open;  // which does not move what is in it
    const auto takeOldest = [&] {
        ASSERT_TRUE(peer.WaitForAnswers(open.front().answers, 1)) << "no answer";
        Count(open.front(), answers);
        open.pop_front();
    };
    for (std::size_t i = 0; i < CALLS && !testing::Test::HasFailure(); ++i) {
        // Every kind of call meets every path.
        const std::string path = PathOf((i + caller) % MAKERS, i / 7);
        Call& call = open.emplace_back();
        call.kind = std::array{Kind::Now, Kind::Later,  Kind::Get,   Kind::Later,
                               Kind::Now, Kind::GetAll, Kind::Later, Kind::End}[i % 8];
        call.number = static_cast<Number>(i / 2);
        switch (call.kind) {
            case Kind::Now:
            case Kind::Later:
                peer.Send(call.answers, path.c_str(), CELL, call.kind == Kind::Now ? "Now" : "Later", "u",
                          call.number);
                break;
            case Kind::Get:
                peer.Send(call.answers, path.c_str(), PROPERTIES, "Get", "ss", CELL, "Level");
                break;
            case Kind::GetAll:
                peer.Send(call.answers, path.c_str(), PROPERTIES, "GetAll", "s", CELL);
                break;
            case Kind::End:
                peer.Send(call.answers, path.c_str(), CELL, "End");
                break;
        }
        ++tally.called;
        if (open.size() >= AT_A_TIME) {
            takeOldest();
        }
        if (i % FIRST_LOOKS == 0) {
            peer.Managed(ROOT);
        }
    }
    while (!open.empty() && !testing::Test::HasFailure()) {
        takeOldest();
    }
}

/// Each object comes and goes in turn.
void ExpectComingAndGoing(const std::vector<std::string>& seen, const Bus::Counters& counters) {
    std::set<std::string> there;
    std::size_t added = 0;
    std::size_t removed = 0;
    std::size_t changes = 0;
    for (const std::string& signal : seen) {
        const std::string path = signal.substr(signal.find(' ') + 1,
                                               signal.find(' ', signal.find(' ') + 1) - signal.find(' ') - 1);
        if (signal.starts_with("added ")) {
            ++added;
            EXPECT_TRUE(there.insert(path).second) << signal;
        } else if (signal.starts_with("removed ")) {
            ++removed;
            EXPECT_EQ(there.erase(path), 1U) << signal;
        } else {
            ++changes;
            EXPECT_TRUE(there.contains(path)) << signal;
        }
    }
    EXPECT_TRUE(there.empty());
    EXPECT_EQ(added, counters.added);
    EXPECT_EQ(removed, counters.removed);
    EXPECT_EQ(changes, counters.changes);
}

/// More with --gtest_repeat.
TEST(Churn, ObjectsComeAndGoWhileTheyAreCalledAndAnsweredByWorkers) {
    const tern::test::PrivateBus bus;
    Tally tally;
    Bus::Counters counters;
    std::array<Answers, CALLERS> answers;
    std::vector<std::string> seen;
    {
        std::optional<Served> served(
            std::in_place, [](Served& it) { ASSERT_EQ(it.typed->AddObjectManager(ROOT), StatusCode::Ok); });
        Selves selves;
        Peer listener;
        listener.Listen();
        std::optional<Answerers> answerers(std::in_place, tally);
        std::atomic<std::size_t> working{MAKERS + CALLERS};
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < MAKERS; ++i) {
            threads.emplace_back([&, i] {
                MakeAndDrop(*served, tally, *answerers, selves, i);
                --working;
            });
        }
        for (std::size_t i = 0; i < CALLERS; ++i) {
            threads.emplace_back([&, i] {
                CallAll(answers[i], tally, i);
                --working;
            });
        }
        // No limit of the message bus is met on the way.
        while (working > 0) {
            for (std::string& signal : listener.WaitForSignals(0)) {
                seen.push_back(std::move(signal));
            }
            std::this_thread::yield();
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        answerers.reset();
        // Those that end themselves, and were not told to.
        for (const std::string& object : listener.Managed(ROOT)) {
            EXPECT_EQ(listener.Call(object.substr(0, object.find(' ')).c_str(), CELL, "End"), "");
            ++answers[0].ended;
        }
        for (std::string& signal : listener.Seen()) {
            seen.push_back(std::move(signal));
        }
        counters = served->Count();
        EXPECT_EQ(tally.alive, 0U);
    }
    Answers all;
    for (const Answers& one : answers) {
        all.now += one.now;
        all.later += one.later;
        all.ended += one.ended;
        all.failed += one.failed;
        all.dropped += one.dropped;
        all.read += one.read;
        all.gone += one.gone;
    }
    EXPECT_EQ(tally.made, MAKERS * OBJECTS);
    EXPECT_EQ(all.now, tally.now);
    EXPECT_EQ(all.later, tally.returned);
    EXPECT_EQ(all.failed, tally.failed);
    EXPECT_EQ(all.dropped, tally.dropped);
    EXPECT_EQ(all.ended, tally.ended);
    EXPECT_EQ(counters.deferred, tally.later);
    EXPECT_EQ(counters.droppedCalls, tally.dropped);
    EXPECT_EQ(counters.objects, 0U);
    EXPECT_EQ(counters.openCalls, 0U);
    EXPECT_EQ(counters.waitingJobs, 0U);
    EXPECT_EQ(counters.refusedCalls, 0U);
    EXPECT_EQ(counters.refusedJobs, 0U);
    EXPECT_EQ(counters.unsentReplies, 0U);
    EXPECT_EQ(counters.unannounced, 0U);
    ExpectComingAndGoing(seen, counters);
    // It did what it is for.
    EXPECT_GT(all.now, 0U);
    EXPECT_GT(all.later, 0U);
    EXPECT_GT(all.dropped, 0U);
    EXPECT_GT(all.gone, 0U);
    EXPECT_GT(all.read, 0U);
    EXPECT_GT(counters.added, 0U);
    RecordProperty("objects", static_cast<int>(tally.made));
    RecordProperty("answers", static_cast<int>(all.now + all.later + all.ended + all.failed + all.dropped));
}

}  // namespace
}  // namespace mwl::Typed
