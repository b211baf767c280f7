#pragma once

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <tern/service/dbus_server_manager.h>
#include <tern/service/event_loop.h>
#include <tern/typed/bus.h>
#include <tern/typed/caller.h>
#include <tern/typed/implements.h>
#include <tern/typed/reply.h>

#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "foundation/handle.h"
#include "support/private_bus.h"
#include "support/wait_until.h"

namespace tern::test {

inline constexpr const char* SERVICE = "com.example.Typed";
inline constexpr const char* ROOM = "com.example.Room1";
inline constexpr const char* DOOR = "com.example.Door1";

/// One member of each kind that the bus has to do with.
struct Room1 {
    using Number = std::uint32_t;
    static constexpr const char* NAME = ROOM;
    static constexpr mwl::Typed::Method<Number(Number)> Later{
        "Later", {"number", "result"}, mwl::Typed::OPEN};
    static constexpr mwl::Typed::Method<std::string()> Text{"Text", {"text"}, mwl::Typed::OPEN};
    static constexpr mwl::Typed::Method<void()> Do{"Do", {}, mwl::Typed::OPEN};
    static constexpr mwl::Typed::Method<Number()> Ask{"Ask", {"answer"}, mwl::Typed::OPEN};
    static constexpr mwl::Typed::Method<Number(Number)> Guarded{
        "Guarded", {"number", "result"}, mwl::Typed::Checked()};
    static constexpr mwl::Typed::Property<Number> Level{"Level"};
    static constexpr mwl::Typed::Property<Number> Mode{"Mode", mwl::Typed::INVALIDATES};
    static constexpr mwl::Typed::Property<Number> Serial{"Serial", mwl::Typed::CONSTANT};
    static constexpr mwl::Typed::Property<Number> Extra{"Extra",
                                                        mwl::Typed::EXPLICIT | mwl::Typed::INVALIDATES};
    static constexpr mwl::Typed::WritableProperty<Number> Target{"Target",
                                                                 mwl::Typed::EMITS | mwl::Typed::OPEN};
    static constexpr mwl::Typed::Signal<Number> Measured{"Measured", {"value"}};
    static constexpr mwl::Typed::Members<Later, Text, Do, Ask, Guarded, Level, Mode, Serial, Extra, Target,
                                         Measured>
        ALL{};
};

/// What a test did before it sent, a handler sees; what the handler did, the test sees that has its answer.
/// Thread sanitizers do not know of an order that comes from messages through another process.
class Ordered {
public:
    Ordered() { Order(); }
    ~Ordered() { Order(); }
    Ordered(const Ordered&) = delete;
    Ordered& operator=(const Ordered&) = delete;

    static void Order() {
        static std::mutex mutex;
        const std::lock_guard lock(mutex);
    }
};

/// Does what the test wants in each handler.
class Room : public mwl::Typed::Implements<Room, Room1> {
public:
    using Number = Room1::Number;

    ~Room() override {
        if (onDeath) {
            onDeath();
        }
    }

    std::function<void(mwl::Typed::Reply<Number>, Number)> onLater;
    std::function<void(mwl::Typed::Reply<std::string>)> onText;
    std::function<void(Room&)> onDo;
    std::function<Number(Room&, const mwl::Typed::Caller&)> onAsk;
    std::function<Number(const mwl::Typed::Caller&, Number)> onGuarded;
    std::function<void(Room&)> onReadLevel;
    std::function<void()> onDeath;
    bool isLevelBroken = false;
    Number level = 1;

    void SetLevel(Number value) {
        level = value;
        Changed<Room1::Level>();
    }
    void ChangeMode() { Changed<Room1::Mode>(); }
    void ChangeExtra() { Changed<Room1::Extra>(); }
    void Measure(Number value) { Emit<Room1::Measured>(value); }

    static constexpr auto Describe() {
        using mwl::Typed::Bind;
        return mwl::Typed::Bindings<Bind<Room1::Later, &Room::Later>, Bind<Room1::Text, &Room::Text>,
                                    Bind<Room1::Do, &Room::Do>, Bind<Room1::Ask, &Room::Ask>,
                                    Bind<Room1::Guarded, &Room::Guarded>, Bind<Room1::Level, &Room::GetLevel>,
                                    Bind<Room1::Mode, &Room::mMode>, Bind<Room1::Serial, &Room::mSerial>,
                                    Bind<Room1::Extra, &Room::mExtra>,
                                    Bind<Room1::Target, &Room::mTarget, &Room::SetTarget>>();
    }

private:
    void Later(mwl::Typed::Reply<Number> reply, Number number) {
        const Ordered ordered;
        onLater(std::move(reply), number);
    }
    void Text(mwl::Typed::Reply<std::string> reply) {
        const Ordered ordered;
        onText(std::move(reply));
    }
    void Do() {
        const Ordered ordered;
        const std::function<void(Room&)> work = onDo;
        work(*this);
    }
    Number Ask(const mwl::Typed::Caller& caller) {
        const Ordered ordered;
        return onAsk(*this, caller);
    }
    Number Guarded(const mwl::Typed::Caller& caller, Number number) {
        const Ordered ordered;
        return onGuarded(caller, number);
    }
    mwl::Typed::Outcome<Number> GetLevel() {
        const Ordered ordered;
        if (onReadLevel) {
            const std::function<void(Room&)> work = onReadLevel;
            work(*this);
        }
        if (isLevelBroken) {
            return mwl::Typed::Error::Failed("broken");
        }
        return level;
    }
    void SetTarget(Number value) { mTarget = value; }

    Number mMode = 2;
    Number mSerial = 3;
    Number mExtra = 4;
    Number mTarget = 5;
};

/// A second kind of interface.
struct Door1 {
    static constexpr const char* NAME = DOOR;
    static constexpr mwl::Typed::Property<bool> Locked{"Locked"};
    static constexpr mwl::Typed::Members<Locked> ALL{};
};
class Door : public mwl::Typed::Implements<Door, Door1> {
public:
    static constexpr auto Describe() {
        return mwl::Typed::Bindings<mwl::Typed::Bind<Door1::Locked, &Door::mLocked>>();
    }
    void Lock() {
        mLocked = true;
        Changed<Door1::Locked>();
    }

private:
    bool mLocked = false;
};

class TestLoop : public mw::tern::EventLoop {
public:
    TestLoop() { EXPECT_GE(sd_event_new(&mEvent), 0); }
    int Run() { return sd_event_loop(mEvent); }
    void End(int code = 0) { sd_event_exit(mEvent, code); }
    void Turn() { EXPECT_GE(sd_event_run(mEvent, 0), 0); }
};

/// A service with a typed bus on a thread of its own, from Start to End.
class Served {
public:
    /// Runs on the D-Bus thread between Bus::Open and the loop.
    using Start = std::function<void(Served&)>;

    explicit Served(Start start = nullptr) {
        std::promise<void> ready;
        mThread = std::thread([this, &ready, start = std::move(start)] { Main(ready, start); });
        ready.get_future().wait();
    }
    ~Served() { End(); }
    Served(const Served&) = delete;
    Served& operator=(const Served&) = delete;

    /// Ends the loop, and waits for the thread.
    void End() {
        if (mThread.joinable()) {
            static_cast<void>(typed->Post([this] { loop->End(); }));  // refused: it ends already
            mThread.join();
        }
    }
    /// Runs on the D-Bus thread, as a job, and waits for it.
    template <typename Function>
    auto On(Function function) {
        std::promise<std::invoke_result_t<Function>> done;
        auto answer = done.get_future();
        EXPECT_TRUE(typed->Post([&] {
            if constexpr (std::is_void_v<std::invoke_result_t<Function>>) {
                function();
                done.set_value();
            } else {
                done.set_value(function());
            }
        }));
        return answer.get();
    }
    /// Exports a room; D-Bus thread.
    Room& Export(const std::string& path) {
        auto made = std::make_unique<Room>();
        Room& it = *made;
        exported.push_back(typed->Export(path, std::move(made)));
        EXPECT_EQ(exported.back().GetStatus(), mwl::StatusCode::Ok);
        return it;
    }
    mwl::Typed::Bus::Counters Count() {
        return On([this] { return typed->GetCounters(); });
    }

    /// Runs on the D-Bus thread when the loop has ended, as IpcServer::Stop does.
    std::function<void()> onStop;
    std::optional<TestLoop> loop;
    std::optional<mw::tern::DBusServerManager> manager;
    std::optional<mwl::Typed::Bus> typed{std::in_place};
    std::vector<mwl::Typed::Exported> exported;
    int result = -1;

private:
    void Main(std::promise<void>& ready, const Start& start) {
        loop.emplace();
        manager.emplace(SERVICE);
        EXPECT_EQ(manager->Connect(), mwl::StatusCode::Ok);
        EXPECT_EQ(manager->AttachLoop(*loop), mwl::StatusCode::Ok);
        EXPECT_EQ(typed->Open(*manager, *loop), mwl::StatusCode::Ok);
        if (start) {
            start(*this);
        }
        ready.set_value();
        result = loop->Run();
        if (onStop) {
            onStop();
        }
        typed->Close();
        manager.reset();
        loop.reset();
    }

    std::thread mThread;
};

/// A client, by sd-bus alone. One thread.
class Peer {
public:
    using Message = mwl::Handle<sd_bus_message, sd_bus_message_unref>;

    Peer() {
        sd_bus* bus = nullptr;
        Check(sd_bus_open_system(&bus));
        mBus.reset(bus);
    }

    sd_bus* Get() { return mBus.get(); }
    std::string Name() {
        const char* name = nullptr;
        Check(sd_bus_get_unique_name(Get(), &name));
        return name;
    }
    /// Leaves the bus.
    void Leave() { mBus.reset(); }

    /// Takes up the service's signals, see Seen.
    void Listen() {
        Check(sd_bus_add_match(Get(), nullptr, "type='signal',sender='com.example.Typed'", OnSignal, this));
    }
    /// The signals of the service up to now, in order.
    std::vector<std::string> Seen() {
        Ping();
        while (Process()) {
        }
        return std::exchange(mSeen, {});
    }
    /// Those that were handled so far, without waiting.
    std::vector<std::string> Taken() { return std::exchange(mSeen, {}); }
    /// Waits until that many signals were seen.
    std::vector<std::string> WaitForSignals(std::size_t count) {
        EXPECT_TRUE(WaitUntil([&] {
            while (Process()) {
            }
            return mSeen.size() >= count;
        }));
        return std::exchange(mSeen, {});
    }
    /// Whatever was sent to the service before has been handled.
    void Ping() { EXPECT_EQ(Call("/", "org.freedesktop.DBus.Peer", "Ping"), ""); }

    /// Calls; the reply's number or text, "" without one, or the error as "name: text".
    template <typename... Argument>
    std::string Call(const char* path, const char* interface, const char* member, const char* types = nullptr,
                     Argument... argument) {
        const Ordered ordered;
        sd_bus_error error{};
        sd_bus_message* reply = nullptr;
        const int r =
            sd_bus_call_method(Get(), SERVICE, path, interface, member, &error, &reply, types, argument...);
        const Message owner(reply);
        std::string text = r < 0 ? std::string(error.name == nullptr ? "?" : error.name) + ": " +
                                       (error.message == nullptr ? "" : error.message)
                                 : Describe(reply);
        sd_bus_error_free(&error);
        return text;
    }
    /// Calls without waiting; the answer goes to `answers`, as of Call.
    template <typename... Argument>
    void Send(std::vector<std::string>& answers, const char* path, const char* interface, const char* member,
              const char* types = nullptr, Argument... argument) {
        Check(sd_bus_call_method_async(
            Get(), nullptr, SERVICE, path, interface, member,
            [](sd_bus_message* reply, void* userdata, sd_bus_error*) {
                auto& all = *static_cast<std::vector<std::string>*>(userdata);
                const sd_bus_error* const error = sd_bus_message_get_error(reply);
                all.push_back(error != nullptr ? std::string(error->name) + ": " + error->message
                                               : Describe(reply));
                return 1;
            },
            &answers, types, argument...));
        Check(sd_bus_flush(Get()));
    }
    /// Until that many are there.
    bool WaitForAnswers(const std::vector<std::string>& answers, std::size_t count) {
        return WaitUntil([&] {
            while (Process()) {
            }
            return answers.size() >= count;
        });
    }
    /// The paths that GetManagedObjects tells of, with the service's own interfaces: "/path interface".
    std::set<std::string> Managed(const char* root) {
        sd_bus_message* reply = nullptr;
        std::set<std::string> paths;
        EXPECT_GE(sd_bus_call_method(Get(), SERVICE, root, "org.freedesktop.DBus.ObjectManager",
                                     "GetManagedObjects", nullptr, &reply, nullptr),
                  0);
        const Message owner(reply);
        if (reply == nullptr) {
            return paths;
        }
        Check(sd_bus_message_enter_container(reply, 'a', "{oa{sa{sv}}}"));
        while (sd_bus_message_enter_container(reply, 'e', "oa{sa{sv}}") > 0) {
            const char* path = nullptr;
            Check(sd_bus_message_read_basic(reply, 'o', &path));
            Check(sd_bus_message_enter_container(reply, 'a', "{sa{sv}}"));
            while (sd_bus_message_enter_container(reply, 'e', "sa{sv}") > 0) {
                const char* interface = nullptr;
                Check(sd_bus_message_read_basic(reply, 's', &interface));
                if (std::string_view(interface).starts_with("com.example.")) {
                    paths.insert(std::string(path) + " " + interface);
                }
                Check(sd_bus_message_skip(reply, "a{sv}"));
                Check(sd_bus_message_exit_container(reply));
            }
            Check(sd_bus_message_exit_container(reply));
            Check(sd_bus_message_exit_container(reply));
        }
        return paths;
    }
    /// Handles one message.
    bool Process() {
        const int r = sd_bus_process(Get(), nullptr);
        Check(r);
        Ordered::Order();
        return r > 0;
    }

    static void Check(int r) {
        if (r < 0) {
            throw std::runtime_error("sd-bus: " + std::to_string(-r));
        }
    }

private:
    /// The first value, if it is a number or text.
    static std::string Describe(sd_bus_message* message) {
        char type = 0;
        if (sd_bus_message_peek_type(message, &type, nullptr) <= 0) {
            return "";
        }
        if (type == 'v') {
            Check(sd_bus_message_enter_container(message, 'v', "u"));
            type = 'u';
        }
        if (type == 'u') {
            std::uint32_t number = 0;
            Check(sd_bus_message_read_basic(message, 'u', &number));
            return std::to_string(number);
        }
        if (type == 's') {
            const char* text = nullptr;
            Check(sd_bus_message_read_basic(message, 's', &text));
            return text;
        }
        return std::string("type ") + type;
    }
    /// " name=value" for each of "a{sv}".
    static std::string DescribeProperties(sd_bus_message* message) {
        std::string text;
        Check(sd_bus_message_enter_container(message, 'a', "{sv}"));
        while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
            const char* name = nullptr;
            const char* contents = nullptr;
            Check(sd_bus_message_read_basic(message, 's', &name));
            Check(sd_bus_message_peek_type(message, nullptr, &contents));
            Check(sd_bus_message_enter_container(message, 'v', contents));
            std::uint32_t number = 0;  // of a boolean as well
            const char* string = nullptr;
            const bool isText = contents[0] == 's';
            Check(sd_bus_message_read_basic(
                message, contents[0], isText ? static_cast<void*>(&string) : static_cast<void*>(&number)));
            text += " " + std::string(name) + "=" + (isText ? string : std::to_string(number));
            Check(sd_bus_message_exit_container(message));
            Check(sd_bus_message_exit_container(message));
        }
        Check(sd_bus_message_exit_container(message));
        return text;
    }
    static std::string DescribeSignal(sd_bus_message* message) {
        const std::string member = sd_bus_message_get_member(message);
        const char* text = nullptr;
        if (member == "PropertiesChanged") {
            Check(sd_bus_message_read_basic(message, 's', &text));
            std::string seen = std::string("changed ") + sd_bus_message_get_path(message) + " " + text;
            seen += DescribeProperties(message);
            Check(sd_bus_message_enter_container(message, 'a', "s"));
            while (sd_bus_message_read_basic(message, 's', &text) > 0) {
                seen += " " + std::string(text) + "?";
            }
            return seen;
        }
        if (member == "InterfacesAdded" || member == "InterfacesRemoved") {
            Check(sd_bus_message_read_basic(message, 'o', &text));
            std::string seen = (member == "InterfacesAdded" ? "added " : "removed ") + std::string(text);
            if (member == "InterfacesRemoved") {
                Check(sd_bus_message_enter_container(message, 'a', "s"));
                while (sd_bus_message_read_basic(message, 's', &text) > 0) {
                    seen += " " + std::string(text);
                }
                return seen;
            }
            Check(sd_bus_message_enter_container(message, 'a', "{sa{sv}}"));
            while (sd_bus_message_enter_container(message, 'e', "sa{sv}") > 0) {
                Check(sd_bus_message_read_basic(message, 's', &text));
                seen += " " + std::string(text) + DescribeProperties(message);
                Check(sd_bus_message_exit_container(message));
            }
            return seen;
        }
        return member + " " + sd_bus_message_get_path(message) + " " + Describe(message);
    }
    static int OnSignal(sd_bus_message* message, void* userdata, sd_bus_error*) {
        static_cast<Peer*>(userdata)->mSeen.push_back(DescribeSignal(message));
        return 0;
    }

    mwl::Handle<sd_bus, sd_bus_flush_close_unref> mBus;
    std::vector<std::string> mSeen;
};

}  // namespace tern::test
