// An asynchronous call as a client makes it, one after the other, and a service of plain sd-bus that answers.
//   bench_caller serve              writes a line to standard output once it serves
//   bench_caller SIDE KIND COUNT
//     SIDE: hand, plain (by hand without sd-event), handler, awaited, task, sdbus-c++
//     KIND: empty, number, text, property

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <tern/service/dbus_server_manager.h>
#include <tern/service/event_loop.h>
#include <tern/typed/bus.h>
#include <tern/typed/proxy.h>
#include <tern/typed/task.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#ifdef TERN_HAVE_SDBUSCPP
#include <sdbus-c++/sdbus-c++.h>
#endif

namespace {

using namespace mwl::Typed;

constexpr const char* SERVICE = "org.example.Counted";
constexpr const char* PATH = "/org/example/Counted";

struct Counted1 {
    static constexpr const char* NAME = "org.example.Counted1";
    static constexpr Method<void()> Empty{"Empty"};
    static constexpr Method<std::uint32_t(std::uint32_t)> Number{"Number"};
    static constexpr Method<std::string(std::string_view)> Text{"Text"};
    static constexpr Property<std::uint32_t> Level{"Level"};
    static constexpr Members<Empty, Number, Text, Level> ALL{};
};

void Require(bool condition, const char* what) {
    if (!condition) {
        fprintf(stderr, "%s failed\n", what);
        std::_Exit(EXIT_FAILURE);
    }
}

// The service.

int OnEmpty(sd_bus_message* call, void*, sd_bus_error*) {
    return sd_bus_reply_method_return(call, "");
}
int OnNumber(sd_bus_message* call, void*, sd_bus_error*) {
    std::uint32_t number = 0;
    const int r = sd_bus_message_read_basic(call, 'u', &number);
    return r < 0 ? r : sd_bus_reply_method_return(call, "u", number);
}
int OnText(sd_bus_message* call, void*, sd_bus_error*) {
    const char* text = nullptr;
    const int r = sd_bus_message_read_basic(call, 's', &text);
    return r < 0 ? r : sd_bus_reply_method_return(call, "s", text);
}
int OnLevel(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*, sd_bus_error*) {
    const std::uint32_t level = 21;
    return sd_bus_message_append_basic(reply, 'u', &level);
}
const sd_bus_vtable TABLE[] = {SD_BUS_VTABLE_START(SD_BUS_VTABLE_UNPRIVILEGED),
                               SD_BUS_METHOD("Empty", "", "", OnEmpty, SD_BUS_VTABLE_UNPRIVILEGED),
                               SD_BUS_METHOD("Number", "u", "u", OnNumber, SD_BUS_VTABLE_UNPRIVILEGED),
                               SD_BUS_METHOD("Text", "s", "s", OnText, SD_BUS_VTABLE_UNPRIVILEGED),
                               SD_BUS_PROPERTY("Level", "u", OnLevel, 0, 0),
                               SD_BUS_VTABLE_END};

/// Until it is killed.
[[noreturn]] void Serve() {
    sd_bus* bus = nullptr;
    Require(sd_bus_open_system(&bus) >= 0, "sd_bus_open_system");
    Require(sd_bus_add_object_vtable(bus, nullptr, PATH, Counted1::NAME, TABLE, nullptr) >= 0, "the service");
    Require(sd_bus_request_name(bus, SERVICE, 0) >= 0, "sd_bus_request_name");
    Require(puts("serving") >= 0 && fflush(stdout) == 0, "standard output");
    for (;;) {
        if (sd_bus_process(bus, nullptr) == 0) {
            sd_bus_wait(bus, UINT64_MAX);
        }
    }
}

// The clients.

class Loop : public mw::tern::EventLoop {
public:
    Loop() { Require(sd_event_new(&mEvent) >= 0, "sd_event_new"); }
    void Run() { sd_event_loop(mEvent); }
    void End() { sd_event_exit(mEvent, 0); }
};

enum class What { Empty, Number, Text, Property };
const std::string TEXT = "twenty-one and a half";

/// As one writes it with sd-bus.
class ByHand {
public:
    /// Without a loop the bus is processed until IsDone.
    ByHand(sd_bus* bus, Loop* loop, What kind, int count)
        : mBus(bus), mLoop(loop), mKind(kind), mLeft(count) {
        Next();
    }
    bool IsDone() const { return mLeft < 0; }
    ~ByHand() { sd_bus_slot_unref(mSlot); }
    ByHand(const ByHand&) = delete;
    ByHand& operator=(const ByHand&) = delete;

private:
    void Next() {
        if (mLeft-- == 0) {
            if (mLoop != nullptr) {
                mLoop->End();
            }
            return;
        }
        const bool isProperty = mKind == What::Property;
        const char* const member = mKind == What::Empty ? "Empty" : mKind == What::Number ? "Number" : "Text";
        sd_bus_message* call = nullptr;
        int r = sd_bus_message_new_method_call(
            mBus, &call, SERVICE, PATH, isProperty ? "org.freedesktop.DBus.Properties" : Counted1::NAME,
            isProperty ? "Get" : member);
        if (r >= 0 && mKind == What::Number) {
            const std::uint32_t number = 21;
            r = sd_bus_message_append_basic(call, 'u', &number);
        } else if (r >= 0 && mKind == What::Text) {
            r = sd_bus_message_append_basic(call, 's', TEXT.c_str());
        } else if (r >= 0 && isProperty) {
            r = sd_bus_message_append(call, "ss", Counted1::NAME, "Level");
        }
        r = r < 0 ? r : sd_bus_call_async(mBus, &mSlot, call, OnReply, this, 5000000);
        Require(r >= 0, "the call by hand");
        sd_bus_message_unref(call);
    }
    static int OnReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
        auto& self = *static_cast<ByHand*>(userdata);
        sd_bus_slot_unref(self.mSlot);
        self.mSlot = nullptr;
        Require(sd_bus_message_is_method_error(reply, nullptr) == 0, "the call");
        std::uint32_t number = 21;
        const char* text = "";
        int r = 0;
        if (self.mKind == What::Number) {
            r = sd_bus_message_read_basic(reply, 'u', &number);
        } else if (self.mKind == What::Text) {
            r = sd_bus_message_read_basic(reply, 's', &text);
            self.mText = std::string(text);  // the caller's own, as all sides give it
        } else if (self.mKind == What::Property) {
            r = sd_bus_message_read(reply, "v", "u", &number);
        }
        Require(r >= 0 && number == 21, "the reply");
        self.Next();
        return 1;
    }

    sd_bus* const mBus;
    Loop* const mLoop;
    const What mKind;
    int mLeft;
    sd_bus_slot* mSlot = nullptr;
    std::string mText;
};

/// With a handler for each call.
class WithHandlers {
public:
    WithHandlers(const Bus& bus, Loop& loop, What kind, int count)
        : mProxy(bus, SERVICE, PATH), mLoop(loop), mKind(kind), mLeft(count) {
        Next();
    }

private:
    void Next() {
        if (mLeft-- == 0) {
            mLoop.End();
            return;
        }
        switch (mKind) {
            case What::Empty:
                mPending = mProxy.Call(Counted1::Empty).Then([this](const Outcome<void>& outcome) {
                    Require(outcome.IsOk(), "the call");
                    Next();
                });
                break;
            case What::Number:
                mPending =
                    mProxy.Call(Counted1::Number, 21U).Then([this](const Outcome<std::uint32_t>& outcome) {
                        Take(outcome);
                    });
                break;
            case What::Property:
                mPending = mProxy.Get(Counted1::Level).Then([this](const Outcome<std::uint32_t>& outcome) {
                    Take(outcome);
                });
                break;
            case What::Text:
                mPending = mProxy.Call(Counted1::Text, TEXT).Then([this](Outcome<std::string> outcome) {
                    Require(outcome.IsOk(), "the call");
                    mText = std::move(*outcome);
                    Next();
                });
                break;
        }
    }
    void Take(const Outcome<std::uint32_t>& outcome) {
        Require(outcome.IsOk() && *outcome == 21, "the call");
        Next();
    }

    Proxy<Counted1> mProxy;
    Loop& mLoop;
    const What mKind;
    int mLeft;
    Pending mPending;
    std::string mText;
};

/// One call.
Task<> AwaitOne(const Proxy<Counted1>& proxy, What kind, std::string& text) {
    if (kind == What::Empty) {
        const Outcome<void> outcome = co_await proxy.Call(Counted1::Empty);
        Require(outcome.IsOk(), "the call");
    } else if (kind == What::Number) {
        const Outcome<std::uint32_t> outcome = co_await proxy.Call(Counted1::Number, 21U);
        Require(outcome.IsOk() && *outcome == 21, "the call");
    } else if (kind == What::Property) {
        const Outcome<std::uint32_t> outcome = co_await proxy.Get(Counted1::Level);
        Require(outcome.IsOk() && *outcome == 21, "the call");
    } else {
        Outcome<std::string> outcome = co_await proxy.Call(Counted1::Text, TEXT);
        Require(outcome.IsOk(), "the call");
        text = std::move(*outcome);
    }
}

/// A coroutine that makes all calls.
Task<> Await(const Bus& bus, Loop& loop, What kind, int count) {
    const Proxy<Counted1> proxy(bus, SERVICE, PATH);
    std::string text;
    for (int i = 0; i < count; ++i) {
        if (kind == What::Empty) {
            const Outcome<void> outcome = co_await proxy.Call(Counted1::Empty);
            Require(outcome.IsOk(), "the call");
        } else if (kind == What::Number) {
            const Outcome<std::uint32_t> outcome = co_await proxy.Call(Counted1::Number, 21U);
            Require(outcome.IsOk() && *outcome == 21, "the call");
        } else if (kind == What::Property) {
            const Outcome<std::uint32_t> outcome = co_await proxy.Get(Counted1::Level);
            Require(outcome.IsOk() && *outcome == 21, "the call");
        } else {
            Outcome<std::string> outcome = co_await proxy.Call(Counted1::Text, TEXT);
            Require(outcome.IsOk(), "the call");
            text = std::move(*outcome);
        }
    }
    loop.End();
}

/// A coroutine for each call, which another one awaits.
Task<> AwaitEach(const Bus& bus, Loop& loop, What kind, int count) {
    const Proxy<Counted1> proxy(bus, SERVICE, PATH);
    std::string text;
    for (int i = 0; i < count; ++i) {
        co_await AwaitOne(proxy, kind, text);
    }
    loop.End();
}

#ifdef TERN_HAVE_SDBUSCPP
class WithSdbusCpp {
public:
    WithSdbusCpp(What kind, int count)
        : mConnection(sdbus::createSystemBusConnection()),
          mProxy(sdbus::createProxy(*mConnection, SERVICE, PATH)),
          mKind(kind),
          mLeft(count) {
        Next();
        mConnection->enterEventLoop();
    }

private:
    void Next() {
        if (mLeft-- == 0) {
            mConnection->leaveEventLoop();
            return;
        }
        switch (mKind) {
            case What::Empty:
                mProxy->callMethodAsync("Empty")
                    .onInterface(Counted1::NAME)
                    .uponReplyInvoke([this](const sdbus::Error* error) {
                        Require(error == nullptr, "the call");
                        Next();
                    });
                break;
            case What::Number:
                mProxy->callMethodAsync("Number")
                    .onInterface(Counted1::NAME)
                    .withArguments(std::uint32_t{21})
                    .uponReplyInvoke([this](const sdbus::Error* error, std::uint32_t number) {
                        Require(error == nullptr && number == 21, "the call");
                        Next();
                    });
                break;
            case What::Text:
                mProxy->callMethodAsync("Text")
                    .onInterface(Counted1::NAME)
                    .withArguments(TEXT)
                    .uponReplyInvoke([this](const sdbus::Error* error, const std::string& text) {
                        Require(error == nullptr, "the call");
                        mText = text;
                        Next();
                    });
                break;
            case What::Property:
                mProxy->callMethodAsync("Get")
                    .onInterface("org.freedesktop.DBus.Properties")
                    .withArguments(std::string(Counted1::NAME), std::string("Level"))
                    .uponReplyInvoke([this](const sdbus::Error* error, const sdbus::Variant& value) {
                        Require(error == nullptr && value.get<std::uint32_t>() == 21, "the call");
                        Next();
                    });
                break;
        }
    }

    std::unique_ptr<sdbus::IConnection> mConnection;
    std::unique_ptr<sdbus::IProxy> mProxy;
    const What mKind;
    int mLeft;
    std::string mText;
};
#endif

What KindOf(std::string_view name) {
    return name == "empty"    ? What::Empty
           : name == "number" ? What::Number
           : name == "text"   ? What::Text
                              : What::Property;
}

}  // namespace

int main(int argc, char* argv[]) {
    const std::string side = argc > 1 ? argv[1] : "";
    if (side == "serve") {
        Serve();
    }
    if (argc != 4) {
        fprintf(stderr, "Usage: %s SIDE KIND COUNT\n", argv[0]);
        return 2;
    }
    const What kind = KindOf(argv[2]);
    const int count = std::atoi(argv[3]);
    if (side == "sdbus-c++") {
#ifdef TERN_HAVE_SDBUSCPP
        const WithSdbusCpp client(kind, count);
        return 0;
#else
        return 2;
#endif
    }
    if (side == "plain") {
        sd_bus* bus = nullptr;
        Require(sd_bus_open_system(&bus) >= 0, "sd_bus_open_system");
        {
            const ByHand client(bus, nullptr, kind, count);
            while (!client.IsDone()) {
                if (sd_bus_process(bus, nullptr) == 0) {
                    sd_bus_wait(bus, UINT64_MAX);
                }
            }
        }
        sd_bus_flush_close_unref(bus);
        return 0;
    }
    Loop loop;
    mw::tern::DBusServerManager manager("");
    Bus bus;
    Require(manager.Connect() == StatusCode::Ok && manager.AttachLoop(loop) == StatusCode::Ok &&
                bus.Open(manager, loop) == StatusCode::Ok,
            "the bus");
    if (side == "hand") {
        const ByHand client(manager.GetBus(), &loop, kind, count);
        loop.Run();
    } else if (side == "handler") {
        const WithHandlers client(bus, loop, kind, count);
        loop.Run();
    } else {
        Require(side == "awaited" || side == "task", "there is no such side, it");
        const Task<> client =
            side == "task" ? AwaitEach(bus, loop, kind, count) : Await(bus, loop, kind, count);
        loop.Run();
        Require(client.IsDone(), "the coroutine");
    }
    bus.Close();
    return 0;
}
