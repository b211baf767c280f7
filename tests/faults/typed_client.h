#pragma once

#include <tern/service/dbus_server_manager.h>
#include <tern/service/event_loop.h>
#include <tern/service/ipc_server.h>
#include <tern/typed/bus.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace tern::test {

/// A typed extension that talks to a TypedPeer in each way there is, and notes what comes of it as text. It
/// is in the library whose calls fail, as what the headers make of a client is an author's program.
///
/// The members that are not the IpcServer's are any thread's but the D-Bus thread's. Those that begin
/// something return false when the D-Bus thread does not take it any more; what comes of it is noted later.
/// Lack of memory while it is begun is noted as an error.
class TERN_API TypedClient : public mwl::DBusService::IpcServer {
public:
    TypedClient();
    ~TypedClient() override;

    mw::tern::StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) override;
    void Stop() override;
    bool IsStopped() const { return mStopped; }

    /// Who is talked to; before the others.
    void SetPeer(const std::string& name);

    /// "sum 5", "echo ...", "note ...", "slept", "ready" when a coroutine has waited for each.
    bool BeginTask();
    /// "sum 5", "asked ..." for the peer's own error, "nobody" for a peer that there is not.
    bool BeginCalls();
    /// "mixed" when a reply of containers and variants is what was sent.
    bool BeginContainers();
    /// "detached" when what a call without an answer did is there.
    bool BeginDetached();
    /// "listening", then "told N" for each signal.
    bool BeginSubscription();
    /// "level N mode N" for each state of the cache.
    bool BeginCache();
    /// "there" and "gone".
    bool BeginWatch();
    /// "+PATH" and "-PATH", "mirrored" when all is known.
    bool BeginMirror();
    /// "introspected", "untyped 5", "all 3".
    bool BeginUntyped();
    /// A call that the peer never answers, by a handler and by a coroutine; "stopped" for each when the bus
    /// closes.
    bool BeginHolding();
    /// Ends everything that was begun.
    bool End();

    /// Waits here: "sum 5".
    void CallFromHere();
    /// The same with a connection of its own: "sum 5", "note ...", "told 7".
    void UseTool();
    /// "introspected", "untyped 5".
    void UseUntypedTool();

    /// Whether that was noted.
    bool HasNoted(const std::string& note) const;
    /// The first error that was noted; empty for none.
    std::string GetError() const;

private:
    bool Run(std::function<void()> job);

    struct State;
    const std::shared_ptr<State> mState;
    std::atomic<bool> mStopped{false};
};

}  // namespace tern::test
