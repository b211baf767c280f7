#pragma once

#include <tern/service/dbus_server_manager.h>
#include <tern/service/event_loop.h>
#include <tern/typed/bus.h>
#include <tern/typed/contract.h>
#include <tern/typed/peer_watch.h>
#include <tern/typed/property_cache.h>
#include <tern/typed/proxy.h>
#include <tern/typed/subscription.h>
#include <tern/typed/task.h>

#include <cstdint>
#include <optional>
#include <string>

#include "progress.h"

namespace soak {

/// What the extension asks of one of its own objects, over the message bus, as a typed client: calls that a
/// coroutine awaits, a subscription, a property cache, a watch and the diagnostics, all the time. Whatever is
/// not as it is to be counts as a failure. D-Bus thread only.
class OwnClient {
public:
    /// com.example.SoakClient1 as far as it is asked.
    struct Client1 {
        static constexpr const char* NAME = "com.example.SoakClient1";
        static constexpr mwl::Typed::Method<std::string(std::string)> Echo{"Echo"};
        static constexpr mwl::Typed::Method<std::uint32_t(std::string)> Work{"Work"};
        static constexpr mwl::Typed::WritableProperty<std::string> Label{"Label", mwl::Typed::EMITS};
        static constexpr mwl::Typed::Members<Echo, Work, Label> ALL{};
    };
    /// com.example.SoakProgress1 as far as it is asked.
    struct Progress1 {
        static constexpr const char* NAME = "com.example.SoakProgress1";
        static constexpr mwl::Typed::Signal<std::uint64_t> Tick{"Tick"};
        static constexpr mwl::Typed::Members<Tick> ALL{};
    };

    /// The progress outlives the client.
    explicit OwnClient(Progress& progress) : mProgress(progress) {}

    /// Begins; the object at `path`, which nobody else calls, is there.
    mw::tern::StatusCode Open(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop,
                              const std::string& path);
    /// Ends what is left.
    void Close();
    /// The thread's only one.
    mwl::Typed::Bus& GetBus() { return mBus; }

private:
    mwl::Typed::Task<> Talk();
    /// At the diagnostics.
    mwl::Typed::Task<> Look();
    /// Whether it is as it is to be; otherwise it is counted, unless the bus closes.
    template <class R>
    bool IsFine(const mwl::Typed::Outcome<R>& outcome);
    void OnTick(std::uint64_t number);

    Progress& mProgress;
    mwl::Typed::Bus mBus;
    std::optional<mwl::Typed::Proxy<Client1>> mObject;
    std::optional<mwl::Typed::PropertyCache<Client1>> mCache;
    mwl::Typed::Subscription mTicks;
    mwl::Typed::PeerWatch mWatch;
    std::uint64_t mLatestEvent = 0;
    /// Of the tick before; 0 at first.
    std::uint64_t mTick = 0;
    bool mIsOver = false;
    mwl::Typed::Task<> mTalk;
};

}  // namespace soak
