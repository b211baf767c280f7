#include "typed_service.h"

#include <fcntl.h>
#include <tern/typed/any.h>
#include <tern/typed/caller.h>
#include <tern/typed/containers.h>
#include <tern/typed/enums.h>
#include <tern/typed/fields.h>
#include <tern/typed/implements.h>
#include <tern/typed/reply.h>
#include <tern/typed/structures.h>
#include <tern/typed/types.h>
#include <tern/typed/variants.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <future>
#include <map>
#include <new>
#include <optional>
#include <span>
#include <stdexcept>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

#include "running.h"

namespace tern::test {

namespace {

using namespace mwl::Typed;
using mw::tern::StatusCode;

std::atomic<int> gAlive{0};

struct Options {
    std::uint32_t seconds = 0;
    std::optional<std::string> note;

    static constexpr auto DBusFields() {
        return Fields(Field("Seconds", &Options::seconds), Field("Note", &Options::note));
    }
};

enum class Mode { Off, Eco };
constexpr auto DBusEnum(Mode) {
    return std::array{EnumText<Mode>{Mode::Off, "off"}, EnumText<Mode>{Mode::Eco, "eco"}};
}

using Pairs = std::vector<std::pair<double, std::string>>;
using Choice = std::variant<std::uint32_t, std::string>;
using Values = std::map<std::string, Any>;
using Counts = std::map<std::uint32_t, std::string>;

struct Faults1 {
    static constexpr const char* NAME = TypedServer::INTERFACE;
    static constexpr const char* DOCUMENTATION = "What is called while something fails.";

    static constexpr Method<std::uint32_t(std::uint32_t)> Next{"Next", {"number", "next"}, OPEN, "One more."};
    static constexpr Method<std::string(std::string)> Text{"Text", {"text", "same"}, OPEN};
    static constexpr Method<Results<std::uint32_t, double>(std::uint32_t, double)> Two{
        "Two", {"number", "value", "number_out", "value_out"}, OPEN};
    static constexpr Method<test::Pairs(test::Pairs)> Pairs{"Pairs", {"pairs", "same"}, OPEN};
    static constexpr Method<test::Options(test::Options)> Options{"Options", {"options", "same"}, OPEN};
    static constexpr Method<std::vector<std::uint8_t>(std::vector<std::uint8_t>)> Bytes{
        "Bytes", {"bytes", "same"}, OPEN};
    static constexpr Method<std::vector<bool>(std::vector<bool>)> Booleans{
        "Booleans", {"values", "same"}, OPEN};
    static constexpr Method<Values(Values)> Anything{"Anything", {"values", "same"}, OPEN};
    static constexpr Method<Counts(Counts)> Numbers{"Numbers", {"values", "same"}, OPEN};
    static constexpr Method<test::Choice(test::Choice)> Choice{"Choice", {"choice", "same"}, OPEN};
    static constexpr Method<test::Mode(test::Mode)> Mode{"Mode", {"mode", "same"}, OPEN};
    static constexpr Method<ObjectPath(ObjectPath)> Path{"Path", {"path", "same"}, OPEN};
    static constexpr Method<OwnedFd(OwnedFd)> File{"File", {"file", "same"}, OPEN};
    static constexpr Method<void(std::string)> Fail{"Fail", {"text"}, OPEN};
    static constexpr Method<void(std::string)> Throw{"Throw", {"text"}, OPEN};
    static constexpr Method<std::uint32_t()> Ask{"Ask", {"user"}, OPEN};
    static constexpr Method<std::uint32_t(std::uint32_t)> Guarded{"Guarded", {"number", "next"}, Checked()};
    static constexpr Method<void(std::string)> GuardedFail{"GuardedFail", {"text"}, Checked()};
    static constexpr Method<std::uint32_t(std::uint32_t)> Later{"Later", {"number", "next"}, OPEN};
    static constexpr Method<std::uint32_t(std::uint32_t)> LaterHere{"LaterHere", {"number", "next"}, OPEN};
    static constexpr Method<void(std::string)> LaterFail{"LaterFail", {"text"}, OPEN};
    static constexpr Method<void()> Drop{"Drop", {}, OPEN};
    static constexpr Method<void()> Keep{"Keep", {}, OPEN};
    static constexpr Method<std::uint32_t(std::uint32_t)> Measure{"Measure", {"value", "sent"}, OPEN};
    static constexpr Property<std::uint32_t> Level{"Level"};
    static constexpr Property<std::string> Name{"Name", CONSTANT};
    static constexpr Property<std::uint32_t> Other{"Other", INVALIDATES};
    static constexpr WritableProperty<std::string> Target{"Target", EMITS | OPEN};
    static constexpr Signal<std::uint32_t, std::string> Measured{"Measured", {"value", "text"}};

    static constexpr Members<Next, Text, Two, Pairs, Options, Bytes, Booleans, Anything, Numbers, Choice,
                             Mode, Path, File, Fail, Throw, Ask, Guarded, GuardedFail, Later, LaterHere,
                             LaterFail, Drop, Keep, Measure, Level, Name, Other, Target, Measured>
        ALL{};
};

/// Runs jobs one by one, as a pool of an extension does. What it does itself never fails.
class Worker {
public:
    Worker() : mThread([this] { Main(); }) {}
    ~Worker() {
        {
            const std::lock_guard lock(mMutex);
            mIsEnding = true;
        }
        mCondition.notify_all();
        mThread.join();
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    /// Throws std::bad_alloc; the job is destroyed then.
    void Queue(Job job) {
        const std::lock_guard lock(mMutex);
        mJobs.push_back(std::move(job));
        mCondition.notify_all();
    }

private:
    void Main() {
        std::unique_lock lock(mMutex);
        while (true) {
            mCondition.wait(lock, [this] { return mIsEnding || !mJobs.empty(); });
            if (mJobs.empty()) {
                return;
            }
            Job job = std::move(mJobs.front());
            mJobs.pop_front();
            lock.unlock();
            try {
                job();
            } catch (const std::bad_alloc&) {
                // What it holds is dropped.
            }
            job = nullptr;
            lock.lock();
        }
    }

    std::mutex mMutex;
    std::condition_variable mCondition;
    std::deque<Job> mJobs;
    bool mIsEnding = false;
    std::thread mThread;
};

class Interface final : public Implements<Interface, Faults1> {
public:
    explicit Interface(Worker& worker) : mWorker(worker) { ++gAlive; }
    ~Interface() override { --gAlive; }
    Interface(const Interface&) = delete;
    Interface& operator=(const Interface&) = delete;

    template <typename T>
    T Echo(T value) {
        return value;
    }

    static constexpr auto Describe() {
        return Bindings<
            Bind<Faults1::Next, &Interface::Next>, Bind<Faults1::Text, &Interface::Echo<std::string>>,
            Bind<Faults1::Two, &Interface::Two>, Bind<Faults1::Pairs, &Interface::Echo<Pairs>>,
            Bind<Faults1::Options, &Interface::Echo<Options>>, Bind<Faults1::Bytes, &Interface::Bytes>,
            Bind<Faults1::Booleans, &Interface::Echo<std::vector<bool>>>,
            Bind<Faults1::Anything, &Interface::Echo<Values>>,
            Bind<Faults1::Numbers, &Interface::Echo<Counts>>, Bind<Faults1::Choice, &Interface::Echo<Choice>>,
            Bind<Faults1::Mode, &Interface::Echo<Mode>>, Bind<Faults1::Path, &Interface::Echo<ObjectPath>>,
            Bind<Faults1::File, &Interface::Echo<OwnedFd>>, Bind<Faults1::Fail, &Interface::Fail>,
            Bind<Faults1::Throw, &Interface::Throw>, Bind<Faults1::Ask, &Interface::Ask>,
            Bind<Faults1::Guarded, &Interface::Next>, Bind<Faults1::GuardedFail, &Interface::Fail>,
            Bind<Faults1::Later, &Interface::Later>, Bind<Faults1::LaterHere, &Interface::LaterHere>,
            Bind<Faults1::LaterFail, &Interface::LaterFail>, Bind<Faults1::Drop, &Interface::Drop>,
            Bind<Faults1::Keep, &Interface::Keep>, Bind<Faults1::Measure, &Interface::Measure>,
            Bind<Faults1::Level, &Interface::mLevel>, Bind<Faults1::Name, &Interface::mName>,
            Bind<Faults1::Other, &Interface::mLevel>,
            Bind<Faults1::Target, &Interface::mTarget, &Interface::SetTarget>>();
    }

private:
    std::uint32_t Next(std::uint32_t number) { return number + 1; }
    Results<std::uint32_t, double> Two(std::uint32_t number, double value) { return {number, value}; }
    std::vector<std::uint8_t> Bytes(std::span<const std::uint8_t> bytes) {
        return {bytes.begin(), bytes.end()};
    }
    Outcome<void> Fail(std::string text) { return Error("com.example.Error.Asked", text); }
    void Throw(const std::string& text) { throw std::runtime_error(text); }
    Outcome<std::uint32_t> Ask(const Caller& caller) {
        const auto user = caller.GetUid();
        const auto process = caller.GetPid();
        if (!user || !process || !caller.IsPrivileged()) {
            return Error("com.example.Error.Unknown", "");
        }
        return *user;
    }
    void Later(Reply<std::uint32_t> reply, std::uint32_t number) {
        mWorker.Queue([number, it = std::move(reply)]() mutable { it.Return(number + 1); });
    }
    void LaterHere(Reply<std::uint32_t> reply, std::uint32_t number) { reply.Return(number + 1); }
    void LaterFail(Reply<void> reply, std::string text) {
        mWorker.Queue([it = std::move(reply), text = std::move(text)]() mutable {
            it.Fail(Error("com.example.Error.Asked", text));
        });
    }
    void Drop(Reply<void> reply) {
        mWorker.Queue([it = std::move(reply)]() mutable { const Reply<void> dropped(std::move(it)); });
    }
    void Keep(Reply<void> reply) { mKept.push_back(std::move(reply)); }
    Outcome<std::uint32_t> Measure(std::uint32_t value) {
        mLevel = value;
        Changed<Faults1::Level>();
        Changed<Faults1::Other>();
        const StatusCode status = Emit<Faults1::Measured>(value, "measured");
        if (status != StatusCode::Ok) {
            return status;
        }
        return value;
    }
    void SetTarget(std::string value) { mTarget = std::move(value); }

    Worker& mWorker;
    std::vector<Reply<void>> mKept;
    std::uint32_t mLevel = 1;
    std::string mName = "a name that does not fit into the string itself";
    std::string mTarget = "a target that does not fit into the string itself";
};

}  // namespace

struct TypedServer::State {
    std::optional<Worker> worker;  ///< made where signals are blocked
    Bus bus;
    Exported object;
    /// Those that come and go.
    std::map<std::string, Exported> others;
};

TypedServer::TypedServer() : mState(std::make_unique<State>()) {}
TypedServer::~TypedServer() = default;

StatusCode TypedServer::Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) {
    mState->worker.emplace();
    StatusCode status = mState->bus.Open(manager, loop);
    if (status == StatusCode::Ok) {
        status = mState->bus.AddObjectManager(ROOT);
    }
    if (status == StatusCode::Ok) {
        mState->object = mState->bus.Export(PATH, std::make_unique<Interface>(*mState->worker));
        status = mState->object.GetStatus();
    }
    return status;
}

void TypedServer::Stop() {
    mState->bus.Close();
    mStopped = true;
}

/// A job that is dropped breaks its promise.
template <typename Job>
bool TypedServer::Run(Job job) {
    std::promise<bool> done;
    auto result = done.get_future();
    if (!mState->bus.Post([&job, done = std::move(done)]() mutable { done.set_value(job()); })) {
        return false;
    }
    try {
        return result.get();
    } catch (const std::future_error&) {
        return false;
    }
}

bool TypedServer::Post() {
    return Run([] { return true; });
}

bool TypedServer::Add(const std::string& path) {
    Exported added;
    const bool done = Run([&] {
        added = mState->bus.Export(path, std::make_unique<Interface>(*mState->worker));
        return added.GetStatus() == StatusCode::Ok;
    });
    mState->others[path] = std::move(added);
    return done;
}

bool TypedServer::Remove(const std::string& path) {
    mState->others.erase(path);
    return Post();  // which comes after the removal
}

bool TypedServer::WaitForOpenCalls(std::size_t count) {
    return WaitUntil([&] { return Run([&] { return mState->bus.GetCounters().openCalls == count; }); },
                     MOMENT);
}

bool TypedServer::SetPeriod() {
    return Run([&] {
        mState->bus.SetChangePeriod(std::chrono::milliseconds(5));
        return true;
    });
}

int TypedServer::Alive() {
    return gAlive;
}

StatusCode WriteTypedIntrospection(const std::string& path) {
    FILE* const file = fopen(path.c_str(), "we");
    if (file == nullptr) {
        return StatusCode::NotFound;
    }
    const StatusCode status = WriteIntrospection<Faults1>(file);
    return fclose(file) == 0 ? status : StatusCode::Failure;
}

}  // namespace tern::test
