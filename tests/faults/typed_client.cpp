#include "typed_client.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <tern/typed/any.h>
#include <tern/typed/blocking_proxy.h>
#include <tern/typed/blocking_untyped_proxy.h>
#include <tern/typed/containers.h>
#include <tern/typed/fields.h>
#include <tern/typed/object_mirror.h>
#include <tern/typed/peer_watch.h>
#include <tern/typed/property_cache.h>
#include <tern/typed/proxy.h>
#include <tern/typed/sleep.h>
#include <tern/typed/structures.h>
#include <tern/typed/task.h>
#include <tern/typed/types.h>
#include <tern/typed/untyped_proxy.h>
#include <tern/typed/variants.h>
#include <tern/typed/wait_for.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <future>
#include <map>
#include <mutex>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "support/wait_until.h"
#include "typed_peer.h"

namespace tern::test {

namespace {

using namespace mwl::Typed;
using namespace std::chrono_literals;
using mw::tern::StatusCode;

/// Shorter than what the scenarios wait for, so that a reply that is lost is told. Some cases wait for all of
/// it.
constexpr std::chrono::milliseconds TIMEOUT{SLOWNESS == 1 ? 1000 : 3000};
constexpr const char* LONG_TEXT = "one that does not fit into the string itself";

struct Options {
    std::uint32_t seconds = 0;
    std::optional<std::string> note;

    static constexpr auto DBusFields() {
        return Fields(Field("Seconds", &Options::seconds), Field("Note", &Options::note));
    }
    friend bool operator==(const Options&, const Options&) = default;
};
using Pairs = std::vector<std::pair<double, std::string>>;
using Texts = std::vector<std::string>;
using Mixed = Results<Options, Pairs, Texts, Any>;

struct Peer1 {
    using Number = std::uint32_t;
    static constexpr const char* NAME = TypedPeer::INTERFACE;

    static constexpr Method<Number(Number, Number)> Add{"Add", {"a", "b", "sum"}};
    static constexpr Method<std::string(std::string)> EchoText{"EchoText", {"text", "same"}};
    static constexpr Method<Mixed(Options, Pairs, Texts, Any)> EchoMixed{"EchoMixed"};
    static constexpr Method<void()> Fail{"Fail"};
    static constexpr Method<void()> Hold{"Hold"};
    static constexpr Method<void(Number)> Tell{"Tell", {"number"}};
    static constexpr Method<void(Number)> Change{"Change", {"level"}};
    static constexpr Property<Number> Level{"Level", EMITS};
    static constexpr Property<Number> Mode{"Mode", INVALIDATES};
    static constexpr WritableProperty<std::string> Note{"Note", EMITS};
    static constexpr Signal<Number, std::string> Told{"Told", {"number", "text"}};

    static constexpr Members<Add, EchoText, EchoMixed, Fail, Hold, Tell, Change, Level, Mode, Note, Told>
        ALL{};
};

}  // namespace

struct TypedClient::State {
    /// Keeps what came; for an error why.
    void Note(std::string note) {
        const std::lock_guard lock(mutex);
        notes.push_back(std::move(note));
    }
    void NoteError(const char* what, const Error& failure) {
        const std::lock_guard lock(mutex);
        if (error.empty()) {
            error = std::string(what) + ": " + failure.GetName();
        }
    }
    template <class R>
    bool IsOk(const char* what, const Outcome<R>& outcome) {
        if (!outcome.IsOk()) {
            NoteError(what, outcome.GetError());
        }
        return outcome.IsOk();
    }
    void NoteSum(const Outcome<std::uint32_t>& sum) {
        if (IsOk("Add", sum)) {
            Note("sum " + std::to_string(*sum));
        }
    }

    Task<> Talk();
    Task<> Hold();

    Bus bus;
    std::optional<Proxy<Peer1>> peer;
    std::optional<Proxy<Peer1>> nobody;
    std::optional<UntypedProxy> untyped;
    // Of the D-Bus thread: what waits.
    std::vector<Pending> pending;
    std::optional<PropertyCache<Peer1>> cache;
    Subscription subscription;
    PeerWatch watch;
    ObjectMirror mirror;
    Task<> task;

    mutable std::mutex mutex;
    // Guarded by it.
    std::vector<std::string> notes;
    std::string error;
};

Task<> TypedClient::State::Talk() {
    NoteSum(co_await peer->Call(Peer1::Add, 2U, 3U));
    const Outcome<std::string> echo = co_await peer->Call(Peer1::EchoText, LONG_TEXT).Within(TIMEOUT);
    if (IsOk("EchoText", echo)) {
        Note("echo " + *echo);
    }
    if (IsOk("Set", co_await peer->Set(Peer1::Note, LONG_TEXT))) {
        const Outcome<std::string> note = co_await peer->Get(Peer1::Note);
        if (IsOk("Get", note)) {
            Note("note " + *note);
        }
    }
    if (const StatusCode status = co_await Sleep(bus, 1ms); status != StatusCode::Ok) {
        NoteError("Sleep", status);
    } else {
        Note("slept");
    }
    const OwnedFd counter(eventfd(1, EFD_CLOEXEC));
    if (IsOk("WaitFor", co_await WaitFor(bus, counter.Get(), EPOLLIN, TIMEOUT))) {
        Note("ready");
    }
}

Task<> TypedClient::State::Hold() {
    const Outcome<void> outcome = co_await peer->Call(Peer1::Hold).Within(1min);
    if (!outcome.IsOk() && outcome.GetError().GetStatus() == StatusCode::Stopping) {
        Note("task stopped");
    } else {
        static_cast<void>(IsOk("Hold", outcome));
    }
}

TypedClient::TypedClient() : mState(std::make_shared<State>()) {}
TypedClient::~TypedClient() = default;

StatusCode TypedClient::Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) {
    return mState->bus.Open(manager, loop);
}

void TypedClient::Stop() {
    mState->bus.Close();
    mState->task = {};
    mState->pending.clear();
    mState->cache.reset();
    mState->subscription.Reset();
    mState->watch.Reset();
    mState->mirror.Reset();
    mStopped = true;
}

void TypedClient::SetPeer(const std::string& name) {
    mState->peer.emplace(mState->bus, name, TypedPeer::PATH);
    mState->peer->SetTimeout(TIMEOUT);
    mState->nobody.emplace(mState->bus, name + ".nobody", TypedPeer::PATH);
    mState->nobody->SetTimeout(TIMEOUT);
    mState->untyped.emplace(mState->peer->GetRemote());
}

/// A job that is dropped breaks its promise.
bool TypedClient::Run(std::function<void()> job) {
    std::promise<void> done;
    auto result = done.get_future();
    const bool isTaken = mState->bus.Post([this, job = std::move(job), done = std::move(done)]() mutable {
        try {
            job();
        } catch (const std::bad_alloc&) {
            mState->NoteError("no memory", StatusCode::OutOfMemory);
        }
        done.set_value();
    });
    if (!isTaken) {
        return false;
    }
    try {
        result.get();
        return true;
    } catch (const std::future_error&) {
        return false;
    }
}

bool TypedClient::BeginTask() {
    return Run([this] { mState->task = mState->Talk(); });
}

bool TypedClient::BeginCalls() {
    return Run([state = mState.get()] {
        state->pending.push_back(
            state->peer->Call(Peer1::Add, 2U, 3U).Then([state](auto sum) { state->NoteSum(sum); }));
        state->pending.push_back(state->peer->Call(Peer1::Fail).Then([state](Outcome<void> failed) {
            if (!failed.IsOk() && failed.GetError().GetName() == "com.example.Error.Asked") {
                state->Note("asked " + failed.GetError().GetText());
            } else {
                static_cast<void>(state->IsOk("Fail", failed));
            }
        }));
        state->pending.push_back(state->nobody->Ping().Then([state](Outcome<void> failed) {
            if (!failed.IsOk() && failed.GetError().GetStatus() == StatusCode::NotFound) {
                state->Note("nobody");
            } else {
                static_cast<void>(state->IsOk("Ping", failed));
            }
        }));
    });
}

bool TypedClient::BeginContainers() {
    return Run([state = mState.get()] {
        const Options options{7, LONG_TEXT};
        const Pairs pairs{{0.5, "half"}, {0.25, LONG_TEXT}};
        const Texts texts{"one", LONG_TEXT};
        const Any any = Any::From(std::map<std::string, std::string>{{"key", LONG_TEXT}});
        state->pending.push_back(state->peer->Call(Peer1::EchoMixed, options, pairs, texts, any)
                                     .Then([state, options, pairs, texts, any](const Outcome<Mixed>& mixed) {
                                         if (state->IsOk("EchoMixed", mixed) &&
                                             std::get<0>(*mixed) == options && std::get<1>(*mixed) == pairs &&
                                             std::get<2>(*mixed) == texts && std::get<3>(*mixed) == any) {
                                             state->Note("mixed");
                                         }
                                     }));
    });
}

bool TypedClient::BeginDetached() {
    return Run([state = mState.get()] {
        state->peer->Call(Peer1::Change, 9U).Detach();
        state->pending.push_back(
            state->peer->Get(Peer1::Level).Then([state](const Outcome<std::uint32_t>& level) {
                if (state->IsOk("Get", level)) {
                    state->Note("detached " + std::to_string(*level));
                }
            }));
    });
}

bool TypedClient::BeginSubscription() {
    const bool isBegun = Run([state = mState.get()] {
        state->subscription = state->peer->On(Peer1::Told, [state](std::uint32_t number, const std::string&) {
            state->Note("told " + std::to_string(number));
        });
        // Behind the subscription, as the message bus answers in order.
        state->pending.push_back(state->peer->Ping().Then([state](const Outcome<void>& answer) {
            const StatusCode status = state->subscription.GetStatus();
            if (status != StatusCode::Ok) {
                state->NoteError("Subscription", status);
            } else if (state->IsOk("Ping", answer)) {
                state->Note("listening");
            }
        }));
    });
    return isBegun;
}

bool TypedClient::BeginCache() {
    return Run([state = mState.get()] {
        state->cache.emplace(*state->peer);
        state->cache->OnChange([state](const PropertyChanges<Peer1>&) {
            const auto& level = state->cache->Get<Peer1::Level>();
            const auto& mode = state->cache->Get<Peer1::Mode>();
            const auto& note = state->cache->Get<Peer1::Note>();
            if (level && mode && note) {
                state->Note("level " + std::to_string(*level) + " mode " + std::to_string(*mode));
            }
        });
    });
}

bool TypedClient::BeginWatch() {
    return Run([state = mState.get()] {
        state->watch = PeerWatch(
            state->bus, state->peer->GetRemote()->GetDestination(),
            [state](const std::string&) { state->Note("there"); }, [state] { state->Note("gone"); });
    });
}

bool TypedClient::BeginMirror() {
    return Run([state = mState.get()] {
        state->mirror = ObjectMirror(
            state->bus, state->peer->GetRemote()->GetDestination(), TypedPeer::ROOT,
            [state](const std::string& path, const std::string&, const auto& properties) {
                state->Note("+" + path + " " + std::to_string(properties.size()));
            },
            [state](const std::string& path, const std::string&) { state->Note("-" + path); },
            [state] { state->Note("mirrored"); });
    });
}

bool TypedClient::BeginUntyped() {
    return Run([state = mState.get()] {
        state->pending.push_back(
            state->untyped->Introspect().Then([state](const Outcome<Introspection::Node>& node) {
                if (state->IsOk("Introspect", node) && node->FindInterface(Peer1::NAME) != nullptr &&
                    node->FindInterface(Peer1::NAME)->FindMethod("Add") != nullptr) {
                    state->Note("introspected");
                }
            }));
        state->pending.push_back(
            state->untyped
                ->Call(Peer1::NAME, "Add", "uu", {Any::From(std::uint32_t{2}), Any::From(std::uint32_t{3})})
                .Then([state](const Outcome<std::vector<Any>>& sum) {
                    if (state->IsOk("Call", sum) && sum->size() == 1) {
                        state->Note("untyped " + sum->front().ToText());
                    }
                }));
        state->pending.push_back(state->untyped->GetAll(Peer1::NAME).Then([state](const auto& all) {
            if (state->IsOk("GetAll", all)) {
                state->Note("all " + std::to_string(all->size()));
            }
        }));
        state->subscription =
            state->untyped->On(Peer1::NAME, "Told", [state](const std::vector<Any>& values) {
                state->Note("told " + (values.empty() ? std::string() : values[0].ToText()));
            });
    });
}

bool TypedClient::BeginHolding() {
    return Run([state = mState.get()] {
        state->task = state->Hold();
        state->pending.push_back(
            state->peer->Call(Peer1::Hold).Within(1min).Then([state](const Outcome<void>& outcome) {
                if (!outcome.IsOk() && outcome.GetError().GetStatus() == StatusCode::Stopping) {
                    state->Note("handler stopped");
                } else {
                    static_cast<void>(state->IsOk("Hold", outcome));
                }
            }));
        state->cache.emplace(*state->peer);
        state->watch = PeerWatch(state->bus, state->peer->GetRemote()->GetDestination(), nullptr, nullptr);
    });
}

bool TypedClient::End() {
    return Run([state = mState.get()] {
        state->task = {};
        state->pending.clear();
        state->cache.reset();
        state->subscription.Reset();
        state->watch.Reset();
        state->mirror.Reset();
    });
}

void TypedClient::CallFromHere() {
    try {
        mState->NoteSum(mState->peer->CallFromWorker(Peer1::Add, 2U, 3U).Wait(2 * TIMEOUT));
    } catch (const std::bad_alloc&) {
        mState->NoteError("CallFromWorker", StatusCode::OutOfMemory);
    }
}

void TypedClient::UseTool() {
    try {
        const BlockingProxy<Peer1> tool =
            BlockingProxy<Peer1>(mState->peer->GetRemote()->GetDestination(), TypedPeer::PATH)
                .Within(TIMEOUT);
        mState->NoteSum(tool.Call(Peer1::Add, 2U, 3U));
        if (mState->IsOk("Set", tool.Set(Peer1::Note, LONG_TEXT))) {
            const Outcome<std::string> note = tool.Get(Peer1::Note);
            if (mState->IsOk("Get", note)) {
                mState->Note("note " + *note);
            }
        }
        auto told = tool.Listen(Peer1::Told);
        if (mState->IsOk("Tell", tool.Call(Peer1::Tell, 7U))) {
            const auto heard = told.Next(TIMEOUT);
            if (mState->IsOk("Next", heard)) {
                mState->Note("told " + std::to_string(std::get<0>(*heard)));
            }
        }
    } catch (const std::bad_alloc&) {
        mState->NoteError("BlockingProxy", StatusCode::OutOfMemory);
    }
}

void TypedClient::UseUntypedTool() {
    try {
        const BlockingUntypedProxy tool =
            BlockingUntypedProxy(mState->peer->GetRemote()->GetDestination(), TypedPeer::PATH)
                .Within(TIMEOUT);
        const Outcome<Introspection::Node> node = tool.Introspect();
        if (mState->IsOk("Introspect", node) && node->FindInterface(Peer1::NAME) != nullptr) {
            mState->Note("introspected");
        }
        const Outcome<std::vector<Any>> sum =
            tool.Call(Peer1::NAME, "Add", "uu", {Any::From(std::uint32_t{2}), Any::From(std::uint32_t{3})});
        if (mState->IsOk("Call", sum) && sum->size() == 1) {
            mState->Note("untyped " + sum->front().ToText());
        }
    } catch (const std::bad_alloc&) {
        mState->NoteError("BlockingUntypedProxy", StatusCode::OutOfMemory);
    }
}

bool TypedClient::HasNoted(const std::string& note) const {
    const std::lock_guard lock(mState->mutex);
    return std::find(mState->notes.begin(), mState->notes.end(), note) != mState->notes.end();
}

std::string TypedClient::GetError() const {
    const std::lock_guard lock(mState->mutex);
    return mState->error;
}

}  // namespace tern::test
