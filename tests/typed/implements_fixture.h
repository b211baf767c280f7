#pragma once

// What the tests of Implements share: an object with members of every form, called over a connection without
// a message bus. Include it in the one source of a test program.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/typed/attachment.h>
#include <tern/typed/caller.h>
#include <tern/typed/implements.h>
#include <tern/typed/reply.h>

#include <cstring>
#include <string>

#include "served_bus.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/private_bus.h"
#include "wire.h"

TERN_INTERPOSE(int, sd_bus_send, (sd_bus * bus, sd_bus_message* message, uint64_t* cookie),
               (bus, message, cookie))
TERN_INTERPOSE(int, sd_bus_query_sender_privilege, (sd_bus_message * call, int capability),
               (call, capability))

namespace mwl::Typed::Tests {

using namespace mwl::Typed;
using tern::test::Answer;
using tern::test::LogCapture;
using tern::test::LogEntry;
using tern::test::Message;
using tern::test::Wire;
using testing::ElementsAre;
using testing::IsEmpty;

inline constexpr const char* PATH = "/com/example/Room";
inline const std::string BAD_TEXT = "\xFF";

enum class Mode { Off, On };
inline constexpr auto DBusEnum(Mode) {
    return std::array{EnumText<Mode>{Mode::Off, "off"}, EnumText<Mode>{Mode::On, "on"}};
}

struct Options {
    std::uint32_t seconds = 0;
    std::optional<std::string> label;
    static constexpr auto DBusFields() {
        return Fields(Field("Seconds", &Options::seconds), Field("Label", &Options::label));
    }
};

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";

    static constexpr Method<void()> Nothing{"Nothing", {}, OPEN};
    static constexpr Method<std::uint32_t(std::uint32_t)> Twice{"Twice", {"value", "result"}, OPEN};
    static constexpr Method<std::string(std::string_view, std::string_view)> Join{
        "Join", {"first", "second", "result"}, OPEN | DEPRECATED};
    static constexpr Method<Results<std::string, bool>(std::int64_t)> Split{
        "Split", {"value", "text", "isNegative"}, OPEN | SENSITIVE};
    static constexpr Method<void(std::uint32_t)> Status{"Status", {"code"}, OPEN};
    static constexpr Method<void(bool)> Maybe{"Maybe", {"works"}, OPEN};
    static constexpr Method<double(bool)> Measure{"Measure", {"works", "celsius"}, OPEN};
    static constexpr Method<std::string()> Who{"Who", {"sender"}, OPEN};
    static constexpr Method<void(std::string_view)> Shout{"Shout", {"text"}, OPEN | NO_REPLY};
    static constexpr Method<void(Options, Mode)> Configure{"Configure", {"options", "mode"}, OPEN};
    static constexpr Method<void(Mode)> Unnamed{"Unnamed", {}, OPEN};
    static constexpr Method<std::string()> Hidden{"Hidden", {"text"}, OPEN | HIDDEN};
    static constexpr Method<void()> Closed{"Closed", {}, Needs(CAP_SYS_TIME)};
    static constexpr Method<std::uint32_t(std::uint32_t)> Guarded{
        "Guarded", {"value", "result"}, Checked(Needs(CAP_SYS_TIME))};
    static constexpr Method<void(std::vector<std::uint8_t>)> Later{"Later", {"data"}, OPEN};

    static constexpr Property<double> Temperature{"Temperature"};
    static constexpr Property<std::string> Label{"Label", INVALIDATES};
    static constexpr Property<std::uint16_t> Serial{"Serial", CONSTANT};
    static constexpr Property<bool> Fragile{"Fragile", Flags{}};
    static constexpr WritableProperty<double> Target{"Target", EMITS | OPEN};
    static constexpr WritableProperty<std::string> Name{"Name", EMITS | OPEN};
    static constexpr WritableProperty<Mode> Power{"Power", INVALIDATES | EXPLICIT | OPEN};
    static constexpr WritableProperty<std::int32_t> Silent{"Silent", OPEN};

    static constexpr Signal<double, std::string> Measured{"Measured", {"celsius", "where"}};
    static constexpr Signal<> Over{"Over", {}, DEPRECATED};

    static constexpr Members<Nothing, Twice, Join, Split, Status, Maybe, Measure, Who, Shout, Configure,
                             Unnamed, Hidden, Closed, Guarded, Later, Temperature, Label, Serial, Fragile,
                             Target, Name, Power, Silent, Measured, Over>
        ALL{};
};

inline std::uint32_t TwiceAsFunction(struct Room& room, std::uint32_t value) noexcept;

struct Room final : Implements<Room, Room1> {
    // Every form of result, of parameters and of qualifiers.
    void Nothing() { ++calls; }
    std::string Join(const std::string& first, std::string&& second) const { return first + second; }
    Results<std::string, bool> Split(std::int64_t value) const noexcept {
        return {std::to_string(value), value < 0};
    }
    StatusCode Status(std::uint32_t code) & { return static_cast<StatusCode>(code); }
    Outcome<void> Maybe(bool works) const& {
        return works ? Outcome<void>() : Error("com.example.Error.Refused", "not today");
    }
    Outcome<double> Measure(const bool works) noexcept {
        if (!works) {
            return StatusCode::NotInitialized;
        }
        return 21.5;
    }
    std::string Who(const Caller& caller) {
        sender = caller.GetSender();
        member = sd_bus_message_get_member(caller.GetMessage());
        return "you";
    }
    void Shout(const Caller& caller, std::string_view text) {
        isReplyWanted = sd_bus_message_get_expect_reply(caller.GetMessage()) > 0;
        heard = text;
    }
    void Configure(const Options& options, Mode mode) {
        seconds = options.seconds;
        power = mode;
    }
    void Later(Reply<void>, std::vector<std::uint8_t>) { ++calls; }

    std::string GetLabel() const { return label; }
    const std::uint16_t& GetSerial() noexcept { return serial; }
    Outcome<bool> GetFragile() {
        if (isBroken) {
            return Error("com.example.Error.Broken", "in pieces");
        }
        return true;
    }
    void SetTarget(double value) { target = value; }
    Outcome<void> SetName(const Caller& caller, std::string value) {
        sender = caller.GetSender();
        if (value.empty()) {
            return Error::InvalidArgs("a name is not empty");
        }
        name = std::move(value);
        return {};
    }
    bool SetPower(Mode value) { return std::exchange(power, value) != value; }
    StatusCode SetSilent(std::int32_t value) {
        if (value < 0) {
            return StatusCode::NotPermitted;
        }
        silent = value;
        return StatusCode::Ok;
    }

    int calls = 0;
    std::string sender;
    std::string member;
    std::string heard;
    bool isReplyWanted = true;
    std::uint32_t seconds = 0;
    double temperature = 20.0;
    std::string label = "north";
    std::uint16_t serial = 4711;
    bool isBroken = false;
    double target = 18.0;
    std::string name = "hall";
    Mode power = Mode::Off;
    std::int32_t silent = 0;

    static constexpr auto Describe() {
        return Bindings<
            // In another order than the contract.
            Bind<Room1::Target, &Room::target, &Room::SetTarget>, Bind<Room1::Nothing, &Room::Nothing>,
            Bind<Room1::Twice, &TwiceAsFunction>, Bind<Room1::Join, &Room::Join>,
            Bind<Room1::Split, &Room::Split>, Bind<Room1::Status, &Room::Status>,
            Bind<Room1::Maybe, &Room::Maybe>, Bind<Room1::Measure, &Room::Measure>,
            Bind<Room1::Who, &Room::Who>, Bind<Room1::Shout, &Room::Shout>,
            Bind<Room1::Configure, &Room::Configure>,
            Bind<Room1::Unnamed, [](Room& room, Mode mode) { room.power = mode; }>,
            Bind<Room1::Hidden, [](const Room&) { return std::string("found"); }>,
            Bind<Room1::Closed, &Room::Nothing>,
            Bind<Room1::Guarded,
                 [](Room&, const Caller&, std::uint32_t value) -> Outcome<std::uint32_t> {
                     return value + 1;
                 }>,
            Bind<Room1::Later, &Room::Later>,
            Bind<Room1::Temperature, [](const Room& room) { return room.temperature; }>,
            Bind<Room1::Label, &Room::GetLabel>, Bind<Room1::Serial, &Room::GetSerial>,
            Bind<Room1::Fragile, &Room::GetFragile>, Bind<Room1::Name, &Room::name, &Room::SetName>,
            Bind<Room1::Power, &Room::power, &Room::SetPower>,
            Bind<Room1::Silent, &Room::silent, &Room::SetSilent>>();
    }
};

inline std::uint32_t TwiceAsFunction(Room& room, std::uint32_t value) noexcept {
    ++room.calls;
    return 2 * value;
}

/// A bus for interfaces, as far as they see one.
class StandInBus final : public Attachment {
public:
    explicit StandInBus(sd_bus* bus) : mBus(bus) {}

    sd_bus* GetBus() noexcept override { return mBus; }
    void OnChanged(InterfaceBase&) noexcept override { ++wakes; }
    std::shared_ptr<ReplyState> GetReplies() noexcept override { return nullptr; }
    int CheckCaller(InterfaceBase& interface, sd_bus_message* call, int capability,
                    sd_bus_message_handler_t handler, void* userdata, sd_bus_error* error) noexcept override {
        EXPECT_EQ(interface.GetUserData(), userdata);
        EXPECT_EQ(capability, CAP_SYS_TIME);
        if (verdict < 0) {
            return sd_bus_error_set(error, SD_BUS_ERROR_ACCESS_DENIED, "not you");
        }
        if (verdict == 0) {
            parked.reset(sd_bus_message_ref(call));
            parkedFor = handler;
            parkedWith = userdata;
        }
        return verdict;
    }

    int wakes = 0;
    int verdict = 1;
    Message parked;
    sd_bus_message_handler_t parkedFor = nullptr;
    void* parkedWith = nullptr;

private:
    sd_bus* mBus;
};

class ImplementsTest : public testing::Test {
protected:
    ImplementsTest() { Export(mRoom); }

    void Export(InterfaceBase& interface) {
        Wire::Check(sd_bus_add_object_vtable(mWire.Server(), nullptr, PATH, interface.GetName().c_str(),
                                             interface.GetVtable(), interface.GetUserData()));
    }

    template <class... A>
    Answer Call(const char* member, const char* types = "", A... argument) {
        return Answer(mWire.Call(mWire.NewCall(PATH, Room1::NAME, member, types, argument...)));
    }
    Answer Get(const char* property) {
        return Answer(mWire.Call(
            mWire.NewCall(PATH, "org.freedesktop.DBus.Properties", "Get", "ss", Room1::NAME, property)));
    }
    template <class T>
    T GetAs(const char* property) {
        Answer answer = Get(property);
        EXPECT_EQ(answer.name, "") << answer.text;
        Wire::Check(sd_bus_message_enter_container(answer.message.get(), 'v', SIGNATURE<T>.text));
        return answer.Get<T>();
    }
    template <class T>
    Answer Set(const char* property, const char* type, T value) {
        return Answer(mWire.Call(mWire.NewCall(PATH, "org.freedesktop.DBus.Properties", "Set", "ssv",
                                               Room1::NAME, property, type, value)));
    }
    std::vector<std::string> TakeChanges() {
        InterfaceBase::Names names;
        const std::size_t count = mRoom.TakeChanges(names);
        EXPECT_EQ(names[count], nullptr);
        return {names.data(), names.data() + count};
    }

    Wire mWire;
    Room mRoom;
    StandInBus mBus{mWire.Server()};
};

inline constexpr const char* ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied";
inline constexpr const char* INVALID_ARGS = "org.freedesktop.DBus.Error.InvalidArgs";
inline constexpr const char* FAILED = "org.freedesktop.DBus.Error.Failed";

}  // namespace mwl::Typed::Tests
