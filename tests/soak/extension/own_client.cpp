#include "own_client.h"

#include <tern/diagnostics/contract.h>
#include <tern/typed/sleep.h>
#include <unistd.h>

#include <chrono>
#include <utility>

#include "names.h"

using mw::tern::StatusCode;
using namespace mwl::Typed;
using namespace std::chrono_literals;

namespace soak {

namespace {

constexpr std::chrono::milliseconds PAUSE{5};
constexpr const char* NOBODY = "com.example.SoakNobody";
/// Of the rounds: what takes a program, and what nobody answers.
constexpr std::uint64_t WORK_EVERY = 20;
constexpr std::uint64_t NOBODY_EVERY = 10;
constexpr std::uint64_t LOOK_EVERY = 25;

}  // namespace

StatusCode OwnClient::Open(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop,
                           const std::string& path) {
    if (const StatusCode status = mBus.Open(manager, loop); status != StatusCode::Ok) {
        return status;
    }
    mObject.emplace(mBus, BUS_NAME, path);
    mCache.emplace(*mObject);
    mCache->OnChange([this](const PropertyChanges<Client1>& changes) {
        mProgress.clientChanges += changes.Has<Client1::Label>() ? 1 : 0;
    });
    mTicks = Proxy<Progress1>(mBus, BUS_NAME, OBJECT_PATH).On(Progress1::Tick, [this](std::uint64_t number) {
        OnTick(number);
    });
    mWatch = PeerWatch(
        mBus, BUS_NAME, [this](const std::string&) { ++mProgress.clientWatches; },
        [this] { ++mProgress.failures; });
    mTalk = Talk();
    return StatusCode::Ok;
}

void OwnClient::Close() {
    mBus.Close();
    mTalk = {};
    mWatch.Reset();
    mTicks.Reset();
    mCache.reset();
}

template <class R>
bool OwnClient::IsFine(const Outcome<R>& outcome) {
    if (outcome.IsOk()) {
        ++mProgress.clientCalls;
        return true;
    }
    const StatusCode status = outcome.GetError().GetStatus();
    mIsOver = status == StatusCode::Stopping || status == StatusCode::IoError;
    mProgress.failures += mIsOver ? 0 : 1;
    return false;
}

Task<> OwnClient::Talk() {
    const Proxy<Client1> nobody(mBus, NOBODY, "/");
    for (std::uint64_t round = 1; !mIsOver; ++round) {
        const std::string text = "round " + std::to_string(round);
        const Outcome<std::string> echo = co_await mObject->Call(Client1::Echo, text);
        if (IsFine(echo) && *echo != text) {
            ++mProgress.failures;
        }
        // The change is announced before the answer.
        if (!mIsOver && IsFine(co_await mObject->Set(Client1::Label, text)) && mCache->IsReady() &&
            mCache->Get<Client1::Label>() != text) {
            ++mProgress.failures;
        }
        if (!mIsOver && round % WORK_EVERY == 0) {
            const Outcome<std::uint32_t> work = co_await mObject->Call(Client1::Work, "command").Within(60s);
            if (IsFine(work) && *work != static_cast<std::uint32_t>(StatusCode::Ok)) {
                ++mProgress.failures;
            }
        }
        if (!mIsOver && round % NOBODY_EVERY == 0) {
            const Outcome<std::string> none = co_await nobody.Call(Client1::Echo, text).Within(60s);
            if (none.IsOk() || none.GetError().GetStatus() != StatusCode::NotFound) {
                static_cast<void>(IsFine(none));
            }
        }
        if (!mIsOver && round % LOOK_EVERY == 0) {
            co_await Look();
        }
        if (co_await Sleep(mBus, PAUSE) != StatusCode::Ok) {
            co_return;
        }
    }
}

Task<> OwnClient::Look() {
    using mwl::Diagnostics::Diagnostics1;
    const Proxy<Diagnostics1> diagnostics(mBus, BUS_NAME, Diagnostics1::PATH);
    const auto figures = co_await diagnostics.Call(Diagnostics1::Snapshot);
    if (IsFine(figures) && (figures->process.pid != static_cast<std::uint32_t>(getpid()) ||
                            !figures->recorder.isRecording || figures->components.empty())) {
        ++mProgress.failures;
    }
    if (mIsOver) {
        co_return;
    }
    const auto events = co_await diagnostics.Call(Diagnostics1::GetEvents, mLatestEvent, 0U);
    if (IsFine(events)) {
        const std::uint64_t former = std::exchange(mLatestEvent, std::get<0>(*events));
        mProgress.failures += mLatestEvent > former ? 0 : 1;
    }
    if (!mIsOver) {
        static_cast<void>(IsFine(co_await diagnostics.Call(Diagnostics1::Why)));
    }
}

void OwnClient::OnTick(std::uint64_t number) {
    const std::uint64_t before = std::exchange(mTick, number);
    ++mProgress.clientSignals;
    if (before != 0 && number != before + 1) {
        ++mProgress.failures;
    }
}

}  // namespace soak
