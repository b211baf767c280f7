#include "diagnostics/recording.h"

#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <optional>

#include "diagnostics/known_copy.h"
#include "diagnostics/log_hooks.h"

namespace mwl::Diagnostics {

namespace {

using Tell::Event;
using Row = ObjectTable::Row;

/// Which of a row's figures an event counts.
enum class Figure : std::uint8_t { None, Asked, AskedIsValue, Begun, Done };

/// What is done with an event.
struct Rule {
    enum class Kind : std::uint8_t {
        Plain,   ///< written
        Begin,   ///< written, and the thread is in it until its end
        End,     ///< written with its duration
        Rare,    ///< see OnRare
        Report,  ///< of a watched thread: not written, as there are too many
        Turn,    ///< of the loop: the same, and for who watches them
    };
    Kind kind = Kind::Rare;
    Figure figure = Figure::None;
    Event begin{};  ///< of an End
};

constexpr std::array<Rule, Tell::EVENTS> MakeRules() {
    std::array<Rule, Tell::EVENTS> rules{};
    const auto set = [&](Event event, Rule rule) { rules[static_cast<std::size_t>(event)] = rule; };
    using Kind = Rule::Kind;
    set(Event::CallBegan, {Kind::Begin, Figure::None});
    set(Event::CallEnded, {Kind::End, Figure::None, Event::CallBegan});
    set(Event::JobQueued, {Kind::Plain, Figure::AskedIsValue});
    set(Event::JobBegan, {Kind::Begin, Figure::Begun});
    set(Event::JobEnded, {Kind::End, Figure::Done, Event::JobBegan});
    set(Event::WakeUp, {Kind::Plain, Figure::Asked});
    set(Event::RunBegan, {Kind::Begin, Figure::Begun});
    set(Event::RunEnded, {Kind::End, Figure::Done, Event::RunBegan});
    set(Event::TimerBegan, {Kind::Begin, Figure::Begun});
    set(Event::TimerEnded, {Kind::End, Figure::Done, Event::TimerBegan});
    set(Event::PipeFull, {Kind::Begin, Figure::Begun});
    set(Event::PipeWaited, {Kind::End, Figure::None, Event::PipeFull});
    set(Event::PipeWritten, {Kind::Plain, Figure::Asked});
    set(Event::PipeRead, {Kind::Plain, Figure::Done});
    set(Event::ThreadAdded, {Kind::Plain, Figure::None});
    set(Event::ThreadRemoved, {Kind::Plain, Figure::None});
    set(Event::WatchReported, {Kind::Report, Figure::None});
    set(Event::TurnEnded, {Kind::Turn, Figure::None});
    return rules;
}
constexpr std::array<Rule, Tell::EVENTS> RULES = MakeRules();

constinit Ring gRing;
constinit ObjectTable gObjects;
constinit std::atomic<bool> gIsOn{false};
constinit std::atomic<bool> gHasFailed{false};
constinit std::atomic<int> gForks{0};
constinit std::atomic<bool> gIsOfRecording{false};
/// What the threads are in, beside the ring's own table: an address is nobody else's business.
constinit std::array<std::array<std::atomic<const void*>, Format::Thread::DEEPEST>, Format::THREADS> gDoing{};

/// By which object each thread is watched, for whoever ends that watch: it may be another thread.
constinit std::array<std::atomic<const void*>, Format::THREADS> gWatch{};

/// Who watches the turns of which bus. The other two are read by the thread of that bus only, which also
/// writes them.
struct TurnWatch {
    std::atomic<const void*> bus{nullptr};
    Recording::TurnHandler handler = nullptr;
    void* argument = nullptr;
};
constinit TurnWatch gTurnWatch;

/// No entry yet, and none any more.
constexpr std::uint16_t UNCLAIMED = Format::NO_THREAD - 1;

/// What is known of the calling thread.
struct OwnThread {
    std::uint16_t number = UNCLAIMED;  ///< of its entry in the ring
    bool isForking = false;            ///< is in fork(2)
    std::uint32_t id = 0;              ///< the kernel's; known once the entry is claimed
};

// By the program's initial block, which is found without a call.
__attribute__((tls_model("initial-exec"))) constinit thread_local OwnThread tThread{};

/// What has the entry is in nothing any more.
void ForgetDoing(std::uint16_t number) noexcept {
    for (std::atomic<const void*>& object : gDoing[number]) {
        object.store(nullptr, std::memory_order_relaxed);
    }
}

/// Has an ending thread's entry given back. No object of the thread: to register its destructor takes memory,
/// and the dynamic loader's lock, which is held while the initialisers of a library that is loaded call this
/// one.
constinit pthread_key_t gThreadEnd{};

/// The thread's entry is no longer its own.
void OnThreadEnd(void*) {
    const std::uint16_t number = std::exchange(tThread.number, Format::NO_THREAD);
    if (number < Format::THREADS && gRing) {
        ForgetDoing(number);
        gRing.ReleaseThread(number);
    }
}

[[gnu::noinline, gnu::cold]] void ClaimThread() noexcept {
    std::array<char, 16> name{};
    static_cast<void>(prctl(PR_GET_NAME, name.data()));  // cannot fail with a valid address
    tThread.id = static_cast<std::uint32_t>(gettid());
    if (pthread_setspecific(gThreadEnd, &tThread) != 0) {
        tThread.number = Format::NO_THREAD;  // nobody would give it back
        return;
    }
    tThread.number = gRing.ClaimThread(tThread.id, name.data());
    if (tThread.number < Format::THREADS) {
        ForgetDoing(tThread.number);
    }
}

inline OwnThread GetThread() noexcept {
    if (__builtin_expect(tThread.number == UNCLAIMED, 0)) {
        ClaimThread();
    }
    return tThread;
}

void StoreLarger(std::atomic<std::uint64_t>& largest, std::uint64_t value) noexcept {
    std::uint64_t former = largest.load(std::memory_order_relaxed);
    while (value > former && !largest.compare_exchange_weak(former, value, std::memory_order_relaxed)) {
    }
}

std::uint64_t PackDoing(Event event, std::uint16_t name) noexcept {
    return static_cast<std::uint64_t>(event) | std::uint64_t{name} << 16U;
}

void EnterDoing(std::uint16_t number, Event event, std::uint16_t name, const void* object,
                std::uint64_t ticks) noexcept {
    if (number >= Format::THREADS) {
        return;
    }
    Format::Thread& thread = gRing.GetThread(number);
    const std::uint32_t depth = thread.depth.load(std::memory_order_relaxed);
    if (depth < Format::Thread::DEEPEST) {
        thread.doing[depth].ticks.store(ticks, std::memory_order_relaxed);
        thread.doing[depth].what.store(PackDoing(event, name), std::memory_order_relaxed);
        gDoing[number][depth].store(object, std::memory_order_relaxed);
    }
    thread.depth.store(depth + 1, std::memory_order_release);
}

/// The duration of what ends, in ticks; 0 when its begin was not seen.
std::uint64_t LeaveDoing(std::uint16_t number, Event begin, std::uint64_t ticks) noexcept {
    if (number >= Format::THREADS) {
        return 0;
    }
    Format::Thread& thread = gRing.GetThread(number);
    const std::uint32_t depth = thread.depth.load(std::memory_order_relaxed);
    if (depth == 0) {
        return 0;
    }
    const std::uint32_t top = depth - 1;
    std::uint64_t duration = 0;
    if (top < Format::Thread::DEEPEST) {
        const Format::Doing& doing = thread.doing[top];
        if ((doing.what.load(std::memory_order_relaxed) & 0xffffU) != static_cast<std::uint64_t>(begin)) {
            return 0;  // it began before recording did
        }
        const std::uint64_t since = doing.ticks.load(std::memory_order_relaxed);
        duration = ticks > since ? ticks - since : 0;  // no clock is trusted never to jump back
        gDoing[number][top].store(nullptr, std::memory_order_relaxed);
    }
    thread.depth.store(top, std::memory_order_release);
    return duration;
}

void Count(Row& row, const Rule& rule, std::uint64_t value) noexcept {
    switch (rule.figure) {
        case Figure::None:
            break;
        case Figure::Asked:
            row.asked.fetch_add(1, std::memory_order_relaxed);
            break;
        case Figure::AskedIsValue:
            row.asked.store(value, std::memory_order_relaxed);
            break;
        case Figure::Begun:
            row.begun.fetch_add(1, std::memory_order_relaxed);
            break;
        case Figure::Done:
            row.done.fetch_add(1, std::memory_order_relaxed);
            break;
    }
}

/// With the name of its thread, which may have ended when the ring is read; without where there is no room.
void WriteThrown(std::string_view text, std::uint32_t thread) noexcept {
    std::array<char, 16> name{};
    static_cast<void>(prctl(PR_GET_NAME, name.data()));  // cannot fail with a valid address
    std::array<char, Format::Message::LONGEST + 1> line{};
    const int length =
        std::snprintf(line.data(), line.size(), "%.*s, in the thread '%s'",
                      static_cast<int>(std::min(text.size(), line.size())), text.data(), name.data());
    if (length > 0 && static_cast<std::size_t>(length) < line.size()) {
        text = line.data();
    }
    gRing.WriteMessage(static_cast<unsigned>(TernLogLevel::Critical), text, true, thread);
}

/// Of whatever thread it is; under whatever name for NO_NAME.
void ForgetWatch(const void* object, std::uint16_t nameId) noexcept {
    for (std::uint16_t number = 0; number < Format::THREADS; ++number) {
        Format::Thread& thread = gRing.GetThread(number);
        if (gWatch[number].load(std::memory_order_relaxed) == object &&
            (nameId == Format::NO_NAME || thread.watchName.load(std::memory_order_relaxed) == nameId)) {
            thread.watchName.store(Format::NO_NAME, std::memory_order_relaxed);
        }
    }
}

[[gnu::noinline, gnu::cold]] void OnRare(Event event, const void* object, std::uint64_t value,
                                         const char* name, std::uint64_t ticks) noexcept {
    const std::string_view text = name == nullptr ? std::string_view() : name;
    const std::uint16_t nameId = text.empty() ? Format::NO_NAME : gRing.Intern(text);
    const OwnThread own = GetThread();
    const bool hasEntry = own.number < Format::THREADS;
    switch (event) {
        case Event::ObjectMade:
            // A supervised thread has no figures, and may have the address of the component that it belongs
            // to.
            if (static_cast<KnownObjects::Kind>(value) != KnownObjects::Kind::Supervised) {
                static_cast<void>(gObjects.Take(object, static_cast<KnownObjects::Kind>(value), nameId));
            }
            return;
        case Event::ObjectGone:
            if (static_cast<KnownObjects::Kind>(value) != KnownObjects::Kind::Supervised) {
                gObjects.GiveBack(object);
            }
            if (static_cast<KnownObjects::Kind>(value) == KnownObjects::Kind::Watched) {
                // What was reported since its end was told has brought it back.
                ForgetWatch(object, Format::NO_NAME);
            }
            return;
        case Event::WatchBegan:
            // Its silence counts from here, also if it never reports.
            if (Row* const row = gObjects.Find(object)) {
                row->largest.store(ticks, std::memory_order_relaxed);
            }
            if (hasEntry) {
                Format::Thread& thread = gRing.GetThread(own.number);
                gWatch[own.number].store(object, std::memory_order_relaxed);
                thread.watchNs.store(value, std::memory_order_relaxed);
                thread.reportedTicks.store(ticks, std::memory_order_relaxed);
                thread.watchName.store(nameId, std::memory_order_release);
            }
            break;
        case Event::WatchEnded:
            ForgetWatch(object, nameId);
            break;
        case Event::StateChanged:
            if (text == "failed") {
                gHasFailed.store(true, std::memory_order_relaxed);
            } else if (text == "running") {
                // One that failed before was not the end.
                gHasFailed.store(false, std::memory_order_relaxed);
            }
            break;
        case Event::Thrown:
            gHasFailed.store(true, std::memory_order_relaxed);
            WriteThrown(text, own.id);
            break;
        default:
            break;
    }
    gRing.Write(ticks, event, own.id, nameId, value);
    // Rare and telling: the clocks as well.
    gRing.Calibrate();
}

/// What the watch's begin would have told: it was before recording began.
[[gnu::noinline, gnu::cold]] void LearnWatch(std::uint16_t number, const void* object, const Row* row,
                                             const char* name) noexcept {
    // One that another thread has ended may be reported to once more.
    const bool hasEnded =
        row == nullptr && object != nullptr && gWatch[number].load(std::memory_order_relaxed) == object;
    if (!hasEnded && name != nullptr && name[0] != '\0') {
        Format::Thread& thread = gRing.GetThread(number);
        gWatch[number].store(object, std::memory_order_relaxed);
        thread.watchNs.store(row == nullptr ? 0 : row->asked.load(std::memory_order_relaxed),
                             std::memory_order_relaxed);
        thread.watchName.store(gRing.Intern(name), std::memory_order_release);
    }
}

void OnTurnEnded(const void* bus, std::uint64_t ticks) noexcept {
    if (gTurnWatch.bus.load(std::memory_order_relaxed) == bus) {
        gTurnWatch.handler(gTurnWatch.argument, ticks);
    }
}

void OnEvent(Event event, const void* object, std::uint64_t value, const char* name) noexcept {
    const std::uint64_t ticks = gRing.Ticks();
    const Rule& rule = RULES[static_cast<std::size_t>(event)];
    if (rule.kind == Rule::Kind::Turn) {
        OnTurnEnded(object, ticks);
        return;
    }
    if (rule.kind == Rule::Kind::Rare) {
        OnRare(event, object, value, name, ticks);
        return;
    }
    Row* const row = gObjects.Find(object);
    const OwnThread own = GetThread();
    if (rule.kind == Rule::Kind::Report) {
        if (row != nullptr) {
            row->largest.store(ticks, std::memory_order_relaxed);
        }
        if (own.number < Format::THREADS) {
            Format::Thread& thread = gRing.GetThread(own.number);
            thread.reportedTicks.store(ticks, std::memory_order_relaxed);
            if (__builtin_expect(thread.watchName.load(std::memory_order_relaxed) == Format::NO_NAME, 0)) {
                LearnWatch(own.number, object, row, name);
            }
        }
        return;
    }
    const std::uint16_t nameId = row == nullptr ? Format::NO_NAME : row->name.load(std::memory_order_relaxed);
    if (rule.kind == Rule::Kind::Begin) {
        EnterDoing(own.number, event, nameId, object, ticks);
    } else if (rule.kind == Rule::Kind::End) {
        value = LeaveDoing(own.number, rule.begin, ticks);
    }
    if (row != nullptr) {
        Count(*row, rule, value);
        if (event == Event::PipeWaited || event == Event::TimerBegan) {
            StoreLarger(row->largest, value);
        } else if (event == Event::JobBegan) {
            row->asked.store(value, std::memory_order_relaxed);
        }
        if (rule.kind == Rule::Kind::End) {
            StoreLarger(row->longest, value);
        }
    }
    gRing.Write(ticks, event, own.id, nameId, value);
}

/// While the process is being forked: nothing is written by the thread that forks.
void OnEventOfForking(Event event, const void* object, std::uint64_t value, const char* name) noexcept {
    if (!tThread.isForking) {
        OnEvent(event, object, value, name);
    }
}

constexpr Tell::Listener LISTENER{Tell::Listener::VERSION, &OnEvent};
constexpr Tell::Listener FORKING{Tell::Listener::VERSION, &OnEventOfForking};

const Tell::Listener* GetWantedListener() noexcept {
    return !gIsOn ? nullptr : gForks != 0 ? &FORKING : &LISTENER;
}

/// After each change of what it depends on. Several threads may do so at once: the last one sees all changes.
void SetWantedListener() noexcept {
    const Tell::Listener* wanted = nullptr;
    do {
        wanted = GetWantedListener();
        Tell::SetListener(wanted);
    } while (wanted != GetWantedListener());
}

void OnMessage(TernLogLevel level, const char* text, std::size_t length) noexcept {
    if (!gIsOn.load(std::memory_order_acquire) || tThread.isForking) {
        return;
    }
    const std::uint32_t id = GetThread().id;
    gRing.WriteMessage(static_cast<unsigned>(level), std::string_view(text, length), false, id);
    gRing.Write(gRing.Ticks(), Event::Message, id, Format::NO_NAME, static_cast<std::uint64_t>(level));
    gRing.Calibrate();
}

// Around fork(2) the thread that forks tells nothing, so that the child, which has not got the memory, begins
// so. The others go on: whose end nobody was told would be in something for ever. Forks are counted while
// nothing is recorded too, as recording may begin and end meanwhile.
void BeforeFork() {
    tThread.isForking = true;
    ++gForks;
    if (gIsOn) {
        SetWantedListener();
    }
}

void AfterForkInParent() {
    if (!std::exchange(tThread.isForking, false)) {
        return;  // it had begun before these were registered
    }
    --gForks;
    if (gIsOn) {
        SetWantedListener();
    }
}

void AfterForkInChild() {
    // Also when another thread had just begun to end the recording, and had not taken the listener out yet.
    const Tell::Listener* const former = Tell::SetListener(nullptr);
    if (former != &LISTENER && former != &FORKING) {
        Tell::SetListener(former);
    }
    // A child of one that never recorded may be the service itself, which its parent only started.
    gIsOfRecording = gIsOfRecording || gRing;
    gIsOn = false;
    gHasFailed = false;
    gForks = 0;
    gTurnWatch.bus = nullptr;
    tThread = {};
    for (std::uint16_t number = 0; number < Format::THREADS; ++number) {
        ForgetDoing(number);
    }
    gRing.Forget();
}

#ifdef __GLIBC__
void MarkOrderlyEnd(int status, void*) {
    if (status != EXIT_SUCCESS) {
        gHasFailed = true;
    }
    Recording::Stop();
}

// Without it an orderly end looks like a sudden one.
void RegisterEnd() {
    static_cast<void>(on_exit(MarkOrderlyEnd, nullptr));
}
#else
void MarkOrderlyEnd() {
    Recording::Stop();
}

// The same; only the C library above tells the exit status.
void RegisterEnd() {
    static_cast<void>(std::atexit(MarkOrderlyEnd));
}
#endif

}  // namespace

StatusCode Recording::Start(std::size_t eventBytes, const Ring::Identity& identity, int& error) {
    if (gIsOn) {
        return StatusCode::Ok;
    }
    static bool isRegistered = false;
    // Before anything is changed.
    std::optional<KnownCopy> known;
    try {
        known.emplace();
    } catch (const std::bad_alloc&) {
        error = ENOMEM;
        return mw::tern::MakeStatusCodeFromErrno(error);
    }
    if (!isRegistered) {
        // Without these a child would write where it has no memory, and threads would keep their entries: so
        // there is no recording then. Before there is a memory, which a child that another thread forks
        // meanwhile would take for its own.
        error = pthread_key_create(&gThreadEnd, OnThreadEnd);
        if (error != 0) {
            return mw::tern::MakeStatusCodeFromErrno(error);
        }
        error = pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);
        if (error != 0) {
            pthread_key_delete(gThreadEnd);
            return mw::tern::MakeStatusCodeFromErrno(error);
        }
        isRegistered = true;
        RegisterEnd();
    }
    if (!gRing) {
        if (const StatusCode status = gRing.Create(eventBytes, identity, error); status != StatusCode::Ok) {
            return status;
        }
    } else {
        // What has ended and what is watched since is not known: nobody was told.
        for (std::uint16_t number = 0; number < Format::THREADS; ++number) {
            gRing.GetThread(number).depth.store(0, std::memory_order_relaxed);
            gRing.GetThread(number).watchName.store(Format::NO_NAME, std::memory_order_relaxed);
            gWatch[number].store(nullptr, std::memory_order_relaxed);
            ForgetDoing(number);
        }
        gRing.MarkEnd(Format::End::None);
    }
    // What exists has its rows when its first event comes.
    static_cast<void>(KnownObjects::CopyAnd(
        **known,
        [](void* argument) noexcept {
            // The rows of those that are known are filled from the copy, which is complete by now.
            gObjects.Clear();
            for (const KnownObjects::Known& each : *static_cast<const KnownCopy::All*>(argument)) {
                if (each.object != nullptr && each.kind != KnownObjects::Kind::Supervised) {
                    const std::string_view name = each.GetName();
                    Row* const row = gObjects.Take(each.object, each.kind,
                                                   name.empty() ? Format::NO_NAME : gRing.Intern(name));
                    if (row != nullptr && each.kind == KnownObjects::Kind::Watched) {
                        row->largest.store(gRing.Ticks(), std::memory_order_relaxed);
                        // A period without end ends with the numbers.
                        constexpr std::uint64_t NS_PER_MS = 1000000;
                        row->asked.store(std::min(each.number, UINT64_MAX / NS_PER_MS) * NS_PER_MS,
                                         std::memory_order_relaxed);
                    }
                }
            }
            gIsOn.store(true);
            SetWantedListener();
        },
        &**known));
    if (Log::SetObserver != nullptr) {
        Log::SetObserver(&OnMessage);
    }
    return StatusCode::Ok;
}

void Recording::Stop() noexcept {
    if (!gIsOn) {
        return;
    }
    gIsOn.store(false);
    SetWantedListener();
    if (Log::SetObserver != nullptr) {
        Log::SetObserver(nullptr);
    }
    gRing.MarkEnd(gHasFailed ? Format::End::Failed : Format::End::Stopped);
}

bool Recording::IsOn() noexcept {
    return gIsOn.load(std::memory_order_acquire);
}

bool Recording::IsChildOfOne() noexcept {
    return gIsOfRecording.load(std::memory_order_relaxed);
}

Ring& Recording::GetRing() noexcept {
    return gRing;
}

ObjectTable& Recording::GetObjects() noexcept {
    return gObjects;
}

std::uint16_t Recording::Intern(std::string_view name) noexcept {
    return gRing.Intern(name);
}

void Recording::RecordCallBegan(std::uint16_t name, std::uint64_t ticks) noexcept {
    const OwnThread own = GetThread();
    EnterDoing(own.number, Event::CallBegan, name, nullptr, ticks);
    gRing.Write(ticks, Event::CallBegan, own.id, name, 0);
}

void Recording::RecordCallEnded(std::uint16_t name, std::uint64_t ticks) noexcept {
    const OwnThread own = GetThread();
    gRing.Write(ticks, Event::CallEnded, own.id, name, LeaveDoing(own.number, Event::CallBegan, ticks));
}

void Recording::SetBusThread() noexcept {
    if (IsOn()) {
        gRing.SetBusThread(GetThread().number);
    }
}

bool Recording::WatchTurns(const void* bus, TurnHandler handler, void* argument) noexcept {
    const void* nobody = nullptr;
    if (!gTurnWatch.bus.compare_exchange_strong(nobody, bus, std::memory_order_acquire)) {
        return false;
    }
    gTurnWatch.handler = handler;
    gTurnWatch.argument = argument;
    return true;
}

void Recording::ForgetTurns(const void* bus) noexcept {
    static_cast<void>(gTurnWatch.bus.compare_exchange_strong(bus, nullptr, std::memory_order_release));
}

std::uint64_t Recording::RunningTicks(const void* object) noexcept {
    const std::uint64_t now = gRing.Ticks();
    std::uint64_t longest = 0;
    for (std::uint16_t number = 0; number < Format::THREADS; ++number) {
        for (std::size_t depth = 0; depth < Format::Thread::DEEPEST; ++depth) {
            if (gDoing[number][depth].load(std::memory_order_relaxed) == object) {
                const std::uint64_t since =
                    gRing.GetThread(number).doing[depth].ticks.load(std::memory_order_relaxed);
                longest = std::max(longest, now > since ? now - since : 1);
            }
        }
    }
    return longest;
}

bool Recording::HasMessages() noexcept {
    return Log::SetObserver != nullptr;
}

}  // namespace mwl::Diagnostics
