#include <cstdint>
#include <functional>
#include <string>

#include "client.h"
#include "running.h"
#include "scenarios.h"
#include "typed_client.h"
#include "typed_peer.h"

namespace tern::test {

namespace {

using TypedExtension = Running<TypedClient>;

constexpr const char* LONG_TEXT = "one that does not fit into the string itself";

/// What is noted in time is as it is to be; an error that is noted is told.
bool Comes(Stage& stage, const TypedClient& client, const std::string& note) {
    const bool isThere =
        WaitUntil([&] { return client.HasNoted(note) || !client.GetError().empty(); }, MOMENT);
    if (client.HasNoted(note)) {
        return true;
    }
    if (const std::string error = client.GetError(); !error.empty()) {
        return stage.Accept(1, error);
    }
    return stage.Expect(isThere, note);
}

/// The same for something that was begun: an extension whose loop has ended has told of that.
bool Comes(Stage& stage, const TypedClient& client, bool isBegun, const std::string& note) {
    return stage.Expect(isBegun, "it is begun") && Comes(stage, client, note);
}

/// A typed extension and a peer; what `step` does is swept. The peer is called by hand through `caller`.
void Talk(Stage& stage,
          const std::function<void(TypedClient& client, TypedPeer& peer, Caller& caller)>& step) {
    TypedPeer peer(stage.BusName() + ".peer");
    TypedExtension extension(stage);
    TypedClient& client = extension.GetServer();
    client.SetPeer(peer.Name());
    if (!extension.Start() || !stage.Expect(peer.IsReady(), "the peer is there")) {
        return;
    }
    Caller caller(stage, peer.Name());
    stage.Sweep([&] {
        step(client, peer, caller);
        static_cast<void>(client.End());
    });
    extension.TellFailure();
}

bool Ask(Stage& stage, Caller& caller, const char* member, std::uint32_t number) {
    return stage.Demand(!caller.Call(TypedPeer::PATH, TypedPeer::INTERFACE, member, "u", number).IsError(),
                        std::string(member) + " of the peer");
}

void RunTask(Stage& stage) {
    Talk(stage, [&](TypedClient& client, TypedPeer&, Caller&) {
        if (Comes(stage, client, client.BeginTask(), "sum 5") &&
            Comes(stage, client, std::string("echo ") + LONG_TEXT) &&
            Comes(stage, client, std::string("note ") + LONG_TEXT) && Comes(stage, client, "slept")) {
            Comes(stage, client, "ready");
        }
    });
}

void RunCalls(Stage& stage) {
    Talk(stage, [&](TypedClient& client, TypedPeer&, Caller&) {
        if (Comes(stage, client, client.BeginCalls(), "sum 5")) {
            Comes(stage, client, "asked text that is long enough for memory");
            Comes(stage, client, "nobody");
        }
    });
}

void RunContainers(Stage& stage) {
    Talk(stage, [&](TypedClient& client, TypedPeer&, Caller&) {
        Comes(stage, client, client.BeginContainers(), "mixed");
    });
}

void RunDetached(Stage& stage) {
    Talk(stage, [&](TypedClient& client, TypedPeer&, Caller&) {
        Comes(stage, client, client.BeginDetached(), "detached 9");
    });
}

void RunFuture(Stage& stage) {
    Talk(stage, [&](TypedClient& client, TypedPeer&, Caller&) {
        client.CallFromHere();
        Comes(stage, client, "sum 5");
    });
}

void RunSubscription(Stage& stage) {
    Talk(stage, [&](TypedClient& client, TypedPeer&, Caller& caller) {
        if (Comes(stage, client, client.BeginSubscription(), "listening")) {
            for (const std::uint32_t number : {7U, 8U}) {
                if (Ask(stage, caller, "Tell", number)) {
                    Comes(stage, client, "told " + std::to_string(number));
                }
            }
        }
    });
}

void RunCache(Stage& stage) {
    Talk(stage, [&](TypedClient& client, TypedPeer&, Caller& caller) {
        if (Comes(stage, client, client.BeginCache(), "level 1 mode 1") && Ask(stage, caller, "Change", 8U)) {
            Comes(stage, client, "level 8 mode 2");
        }
    });
}

void RunWatch(Stage& stage) {
    Talk(stage, [&](TypedClient& client, TypedPeer& peer, Caller&) {
        if (Comes(stage, client, client.BeginWatch(), "there")) {
            peer.SetThere(false);
            Comes(stage, client, "gone");
            peer.SetThere(true);
        }
    });
}

void RunMirror(Stage& stage) {
    Talk(stage, [&](TypedClient& client, TypedPeer&, Caller& caller) {
        const std::string item = std::string(TypedPeer::ROOT) + "/an_item_with_a_long_name";
        const auto ask = [&](const char* member) {
            const Answer answer =
                caller.Call(TypedPeer::PATH, TypedPeer::INTERFACE, member, "o", item.c_str());
            return stage.Demand(!answer.IsError(), std::string(member) + " of the peer");
        };
        if (!Comes(stage, client, client.BeginMirror(), "mirrored")) {
            return;
        }
        Comes(stage, client, std::string("+") + TypedPeer::PATH + " 3");
        if (ask("Make")) {
            Comes(stage, client, "+" + item + " 1");
        }
        if (ask("Take")) {
            Comes(stage, client, "-" + item);
        }
    });
}

void RunUntyped(Stage& stage) {
    Talk(stage, [&](TypedClient& client, TypedPeer&, Caller& caller) {
        if (Comes(stage, client, client.BeginUntyped(), "introspected") &&
            Comes(stage, client, "untyped 5") && Comes(stage, client, "all 3") &&
            Ask(stage, caller, "Tell", 7U)) {
            Comes(stage, client, "told 7");
        }
    });
}

void RunTool(Stage& stage) {
    Talk(stage, [&](TypedClient& client, TypedPeer&, Caller&) {
        client.UseTool();
        if (Comes(stage, client, "sum 5") && Comes(stage, client, std::string("note ") + LONG_TEXT)) {
            Comes(stage, client, "told 7");
        }
    });
}

void RunUntypedTool(Stage& stage) {
    Talk(stage, [&](TypedClient& client, TypedPeer&, Caller&) {
        client.UseUntypedTool();
        if (Comes(stage, client, "introspected")) {
            Comes(stage, client, "untyped 5");
        }
    });
}

/// With calls, a task, a cache and a watch that wait.
void RunStop(Stage& stage) {
    const TypedPeer peer(stage.BusName() + ".peer");
    TypedExtension extension(stage);
    TypedClient& client = extension.GetServer();
    client.SetPeer(peer.Name());
    if (!extension.Start() || !stage.Expect(client.BeginHolding(), "the calls are begun")) {
        return;
    }
    stage.Sweep([&] {
        SendStop();
        if (stage.Expect(extension.WaitForEnd(), "SIGTERM ends the loop")) {
            extension.Join();
        }
    });
    Comes(stage, client, "handler stopped");
    Comes(stage, client, "task stopped");
    extension.TellFailure();
}

}  // namespace

std::vector<Scenario> TypedClientScenarios() {
    return {{"typed-client-task", RunTask},
            {"typed-client-calls", RunCalls},
            {"typed-client-containers", RunContainers},
            {"typed-client-detached", RunDetached},
            {"typed-client-future", RunFuture},
            {"typed-client-subscription", RunSubscription},
            {"typed-client-cache", RunCache},
            {"typed-client-watch", RunWatch},
            {"typed-client-mirror", RunMirror},
            {"typed-client-untyped", RunUntyped},
            {"typed-client-tool", RunTool},
            {"typed-client-untyped-tool", RunUntypedTool},
            {"typed-client-stop", RunStop}};
}

}  // namespace tern::test
