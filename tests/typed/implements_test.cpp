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

using namespace mwl::Typed;
using tern::test::Answer;
using tern::test::LogCapture;
using tern::test::LogEntry;
using tern::test::Message;
using tern::test::Wire;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* PATH = "/com/example/Room";
const std::string BAD_TEXT = "\xFF";

enum class Mode { Off, On };
constexpr auto DBusEnum(Mode) {
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

std::uint32_t TwiceAsFunction(struct Room& room, std::uint32_t value) noexcept;

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

std::uint32_t TwiceAsFunction(Room& room, std::uint32_t value) noexcept {
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

constexpr const char* ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied";
constexpr const char* INVALID_ARGS = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr const char* FAILED = "org.freedesktop.DBus.Error.Failed";

}  // namespace

// The vtable ---------------------------------------------------------------------------------------------

namespace {

struct Small1 {
    static constexpr const char* NAME = "com.example.Small1";
    static constexpr Method<void()> Bare{"Bare"};
    static constexpr Method<Results<std::string, bool>(std::uint32_t, std::string_view)> Full{
        "Full", {"count", "text", "result", "isDone"}, OPEN | DEPRECATED | SENSITIVE};
    static constexpr Method<void(bool)> Lost{"Lost", {"value"}, NO_REPLY | HIDDEN | Needs(CAP_SYS_TIME)};
    static constexpr Method<void()> Guarded{"Guarded", {}, Checked(Needs(CAP_SYS_TIME)) | DEPRECATED};
    static constexpr Property<double> Level{"Level"};
    static constexpr Property<std::vector<std::string>> Fixed{"Fixed", CONSTANT | HIDDEN};
    static constexpr WritableProperty<std::int64_t> Target{"Target", EMITS | OPEN};
    static constexpr WritableProperty<bool> Large{"Large", INVALIDATES | EXPLICIT | SENSITIVE};
    static constexpr Signal<double, std::string> Measured{"Measured", {"celsius", "where"}};
    static constexpr Signal<> Over{"Over", {}, DEPRECATED};
    static constexpr Members<Bare, Full, Lost, Guarded, Level, Fixed, Target, Large, Measured, Over> ALL{};
};

struct Small final : Implements<Small, Small1> {
    void Bare() {}
    Results<std::string, bool> Full(std::uint32_t, std::string) { return {"", true}; }
    void Lost(bool) {}
    void SetTarget(std::int64_t) {}
    void SetLarge(bool) {}
    double level = 0.0;
    std::vector<std::string> fixed;
    std::int64_t target = 0;
    bool large = false;
    static constexpr auto Describe() {
        return Bindings<Bind<Small1::Bare, &Small::Bare>, Bind<Small1::Full, &Small::Full>,
                        Bind<Small1::Lost, &Small::Lost>, Bind<Small1::Guarded, &Small::Bare>,
                        Bind<Small1::Level, &Small::level>, Bind<Small1::Fixed, &Small::fixed>,
                        Bind<Small1::Target, &Small::target, &Small::SetTarget>,
                        Bind<Small1::Large, &Small::large, &Small::SetLarge>>();
    }
};

constexpr auto ON_LEVEL = &Detail::OnGet<Small, &Small::level>;
const sd_bus_vtable BY_HAND[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Bare", "", "", (&Detail::OnMethod<Small, Small1::Bare, &Small::Bare>), 0),
    SD_BUS_METHOD_WITH_NAMES("Full", "us", SD_BUS_PARAM(count) SD_BUS_PARAM(text), "sb",
                             SD_BUS_PARAM(result) SD_BUS_PARAM(isDone),
                             (&Detail::OnMethod<Small, Small1::Full, &Small::Full>),
                             SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_DEPRECATED | SD_BUS_VTABLE_SENSITIVE),
    SD_BUS_METHOD_WITH_NAMES(
        "Lost", "b", SD_BUS_PARAM(value), "", "", (&Detail::OnMethod<Small, Small1::Lost, &Small::Lost>),
        SD_BUS_VTABLE_METHOD_NO_REPLY | SD_BUS_VTABLE_HIDDEN | SD_BUS_VTABLE_CAPABILITY(CAP_SYS_TIME)),
    SD_BUS_METHOD("Guarded", "", "", (&Detail::OnMethod<Small, Small1::Guarded, &Small::Bare>),
                  SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_DEPRECATED),
    SD_BUS_PROPERTY("Level", "d", ON_LEVEL, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("Fixed", "as", (&Detail::OnGet<Small, &Small::fixed>), 0,
                    SD_BUS_VTABLE_PROPERTY_CONST | SD_BUS_VTABLE_HIDDEN),
    SD_BUS_WRITABLE_PROPERTY("Target", "x", (&Detail::OnGet<Small, &Small::target>),
                             (&Detail::OnSet<Small, &Small::SetTarget, 2>), 0,
                             SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE | SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_WRITABLE_PROPERTY("Large", "b", (&Detail::OnGet<Small, &Small::large>),
                             (&Detail::OnSet<Small, &Small::SetLarge, 4>), 0,
                             SD_BUS_VTABLE_PROPERTY_EMITS_INVALIDATION | SD_BUS_VTABLE_PROPERTY_EXPLICIT |
                                 SD_BUS_VTABLE_SENSITIVE),
    SD_BUS_SIGNAL_WITH_NAMES("Measured", "ds", SD_BUS_PARAM(celsius) SD_BUS_PARAM(where), 0),
    SD_BUS_SIGNAL("Over", "", SD_BUS_VTABLE_DEPRECATED),
    SD_BUS_VTABLE_END};

/// Each with its null character, and the one behind the last.
std::string NamesIn(const char* names) {
    const char* end = names;
    while (*end != '\0') {
        end += std::strlen(end) + 1;
    }
    return {names, end + 1};
}

/// All bytes, but texts by their content.
void ExpectSame(const sd_bus_vtable& made, const sd_bus_vtable& byHand) {
    ASSERT_EQ(made.type, byHand.type);
    EXPECT_EQ(made.flags, byHand.flags);
    switch (made.type) {
        case _SD_BUS_VTABLE_START:
            EXPECT_EQ(made.x.start.element_size, byHand.x.start.element_size);
            EXPECT_EQ(made.x.start.features, byHand.x.start.features);
            EXPECT_EQ(made.x.start.vtable_format_reference, byHand.x.start.vtable_format_reference);
            break;
        case _SD_BUS_VTABLE_METHOD:
            EXPECT_STREQ(made.x.method.member, byHand.x.method.member);
            EXPECT_STREQ(made.x.method.signature, byHand.x.method.signature);
            EXPECT_STREQ(made.x.method.result, byHand.x.method.result);
            EXPECT_EQ(made.x.method.handler, byHand.x.method.handler);
            EXPECT_EQ(made.x.method.offset, byHand.x.method.offset);
            EXPECT_EQ(NamesIn(made.x.method.names), NamesIn(byHand.x.method.names));
            break;
        case _SD_BUS_VTABLE_PROPERTY:
        case _SD_BUS_VTABLE_WRITABLE_PROPERTY:
            EXPECT_STREQ(made.x.property.member, byHand.x.property.member);
            EXPECT_STREQ(made.x.property.signature, byHand.x.property.signature);
            EXPECT_EQ(made.x.property.get, byHand.x.property.get);
            EXPECT_EQ(made.x.property.set, byHand.x.property.set);
            EXPECT_EQ(made.x.property.offset, byHand.x.property.offset);
            break;
        case _SD_BUS_VTABLE_SIGNAL:
            EXPECT_STREQ(made.x.signal.member, byHand.x.signal.member);
            EXPECT_STREQ(made.x.signal.signature, byHand.x.signal.signature);
            EXPECT_EQ(NamesIn(made.x.signal.names), NamesIn(byHand.x.signal.names));
            break;
        default:
            EXPECT_EQ(made.type, _SD_BUS_VTABLE_END);
            EXPECT_EQ(made.x.end._reserved, byHand.x.end._reserved);
    }
}

/// From which byte of an entry on nothing is used.
std::size_t UsedSize(const sd_bus_vtable& entry) {
    switch (entry.type) {
        case _SD_BUS_VTABLE_START:
            return offsetof(sd_bus_vtable, x) + sizeof entry.x.start;
        case _SD_BUS_VTABLE_METHOD:
            return offsetof(sd_bus_vtable, x) + sizeof entry.x.method;
        case _SD_BUS_VTABLE_SIGNAL:
            return offsetof(sd_bus_vtable, x) + sizeof entry.x.signal;
        case _SD_BUS_VTABLE_END:
            return offsetof(sd_bus_vtable, x) + sizeof entry.x.end;
        default:
            return offsetof(sd_bus_vtable, x) + sizeof entry.x.property;
    }
}

}  // namespace

TEST(ImplementsVtable, IsTheOneThatIsWrittenByHand) {
    const Small small;
    const sd_bus_vtable* const made = small.GetVtable();
    for (std::size_t i = 0; i < std::size(BY_HAND); ++i) {
        SCOPED_TRACE("entry " + std::to_string(i));
        ExpectSame(made[i], BY_HAND[i]);
        unsigned char bytes[sizeof made[i]];
        std::memcpy(bytes, &made[i], sizeof bytes);
        for (std::size_t at = UsedSize(made[i]); at < sizeof bytes; ++at) {
            EXPECT_EQ(bytes[at], 0) << "byte " << at;
        }
    }
}

TEST(ImplementsVtable, IsOneForAllObjectsOfAClass) {
    const Small one;
    const Small other;
    EXPECT_EQ(one.GetVtable(), other.GetVtable());
    EXPECT_EQ(one.GetName(), "com.example.Small1");
}

TEST_F(ImplementsTest, IntrospectionNamesTheArguments) {
    Answer xml(mWire.Call(mWire.NewCall(PATH, "org.freedesktop.DBus.Introspectable", "Introspect")));
    const auto text = xml.Get<std::string>();
    char* written = nullptr;
    std::size_t size = 0;
    FILE* const file = open_memstream(&written, &size);
    ASSERT_EQ(WriteIntrospection<Room1>(file), StatusCode::Ok);
    fclose(file);
    std::string own(written, size);
    free(written);
    // The bus tells the interface as we do, but for what only we know: which calls are sensitive, and that
    // the typed bus checks the callers of a method that is open for sd-bus.
    own.erase(0, own.find(" <interface"));
    own.erase(own.find("</node>"));
    for (const std::string_view unknown :
         {"   <annotation name=\"mwl.Typed.Sensitive\" value=\"true\"/>\n"}) {
        ASSERT_NE(own.find(unknown), std::string::npos);
        own.erase(own.find(unknown), unknown.size());
    }
    const std::string_view privileged =
        "   <annotation name=\"org.freedesktop.systemd1.Privileged\" value=\"true\"/>\n";
    own.erase(own.find(privileged, own.find("\"Guarded\"")), privileged.size());
    EXPECT_NE(text.find(own), std::string::npos) << text << own;
    EXPECT_NE(own.find("<arg type=\"s\" name=\"second\" direction=\"in\"/>"), std::string::npos);
}

// Methods ------------------------------------------------------------------------------------------------

TEST_F(ImplementsTest, EveryFormOfHandlerIsCalled) {
    EXPECT_EQ(Call("Nothing").Signature(), "");
    EXPECT_EQ(mRoom.calls, 1);
    EXPECT_EQ(Call("Twice", "u", 21U).Get<std::uint32_t>(), 42U);
    EXPECT_EQ(mRoom.calls, 2);
    EXPECT_EQ(Call("Join", "ss", "left", "right").Get<std::string>(), "leftright");
    Answer split = Call("Split", "x", std::int64_t{-5});
    EXPECT_EQ(split.Signature(), "sb");
    EXPECT_EQ(split.Get<std::string>(), "-5");
    EXPECT_TRUE(split.Get<bool>());
    EXPECT_EQ(Call("Maybe", "b", 1).Signature(), "");
    EXPECT_EQ(Call("Measure", "b", 1).Get<double>(), 21.5);
    EXPECT_EQ(Call("Hidden").Get<std::string>(), "found");
    EXPECT_EQ(Call("Unnamed", "s", "on").Signature(), "");
    EXPECT_EQ(mRoom.power, Mode::On);
}

TEST_F(ImplementsTest, StatusIsAnEmptyReplyOrAnError) {
    EXPECT_EQ(Call("Status", "u", 0U).name, "");
    const Answer busy = Call("Status", "u", static_cast<unsigned>(StatusCode::Busy));
    EXPECT_EQ(busy.name, "mwl.StatusCode.Busy");
    EXPECT_EQ(busy.text, "Busy");
    EXPECT_EQ(Call("Status", "u", static_cast<unsigned>(StatusCode::NotPermitted)).name, ACCESS_DENIED);
}

TEST_F(ImplementsTest, OutcomeIsTheReplyOrTheErrorAsItIs) {
    const Answer refused = Call("Maybe", "b", 0);
    EXPECT_EQ(refused.name, "com.example.Error.Refused");
    EXPECT_EQ(refused.text, "not today");
    EXPECT_EQ(Call("Measure", "b", 0).name, "mwl.StatusCode.NotInitialized");
}

TEST_F(ImplementsTest, CallerIsKnownToWhoAsks) {
    EXPECT_EQ(Call("Who").Get<std::string>(), "you");
    EXPECT_EQ(mRoom.member, "Who");
    EXPECT_EQ(mRoom.sender, "");  // no bus that gives names
}

TEST_F(ImplementsTest, CallThatWantsNoReplyGetsNone) {
    const Message call = mWire.NewCall(PATH, Room1::NAME, "Shout", "s", "hello");
    Wire::Check(sd_bus_message_set_expect_reply(call.get(), 0));
    tern::test::FaultScope scope(fault_sd_bus_send);
    Wire::Check(sd_bus_send(mWire.Client(), call.get(), nullptr));
    fault_sd_bus_send.Fail(-EIO, 0, 1000);  // counts what the service sends
    ASSERT_TRUE(mWire.Serve([this] { return !mRoom.heard.empty(); }));
    EXPECT_EQ(mRoom.heard, "hello");
    EXPECT_FALSE(mRoom.isReplyWanted);
    EXPECT_EQ(fault_sd_bus_send.Calls(), 0);
}

TEST_F(ImplementsTest, SensitiveMethodIsMarkedSo) {
    // What sd-bus makes of it is not seen from outside.
    EXPECT_NE(mRoom.GetVtable()[4].flags & SD_BUS_VTABLE_SENSITIVE, 0U);
    EXPECT_STREQ(mRoom.GetVtable()[4].x.method.member, "Split");
}

TEST_F(ImplementsTest, WrongSignatureIsRefusedBySdBus) {
    const Answer answer = Call("Twice", "s", "x");
    EXPECT_EQ(answer.name, INVALID_ARGS);
    EXPECT_EQ(mRoom.calls, 0);
}

TEST_F(ImplementsTest, WrongArgumentIsNamed) {
    struct {
        const char* key;
        const char* type;
        const char* value;
        const char* mode;
        const char* text;
    } const table[] = {
        {"Seconds", "s", "many", "on", "argument 'options.Seconds': 's' where 'u' is wanted"},
        {"Label", "s", "x", "on", "argument 'options': the key 'Seconds' is missing"},
    };
    const LogCapture log;
    for (const auto& row : table) {
        const Answer answer = Call("Configure", "a{sv}s", 1, row.key, row.type, row.value, row.mode);
        EXPECT_EQ(answer.name, INVALID_ARGS);
        EXPECT_EQ(answer.text, row.text);
    }
    const Answer mode = Call("Configure", "a{sv}s", 1, "Seconds", "u", 7U, "fast");
    EXPECT_EQ(mode.name, INVALID_ARGS);
    EXPECT_EQ(mode.text, "argument 'mode': 'fast' is not one of its values");
    EXPECT_EQ(mRoom.seconds, 0U);
    const LogEntry refused =
        tern::test::Info("Typed",
                         "com.example.Room1.Configure of /com/example/Room, asked by nobody, refused: "
                         "org.freedesktop.DBus.Error.InvalidArgs (0 like it not logged)");
    EXPECT_THAT(log.Entries("Typed"), ElementsAre(refused, refused, refused));
}

TEST_F(ImplementsTest, WrongArgumentWithoutANameHasANumber) {
    EXPECT_EQ(Call("Unnamed", "s", "fast").text, "argument '1': 'fast' is not one of its values");
}

TEST_F(ImplementsTest, LateAnswerNeedsATypedBus) {
    const LogCapture log;
    const Answer alone = Call("Later", "ay", 0);
    EXPECT_EQ(alone.name, FAILED);
    EXPECT_EQ(alone.text, "the interface has no typed bus");
    EXPECT_EQ(mRoom.calls, 0);
    EXPECT_THAT(
        log.Entries("Typed"),
        ElementsAre(tern::test::Warning("Typed",
                                        "com.example.Room1 is on no typed bus: its changes and signals go "
                                        "nowhere, and calls cannot be answered later"),
                    tern::test::Info("Typed",
                                     "com.example.Room1.Later of /com/example/Room, asked by nobody, "
                                     "refused: org.freedesktop.DBus.Error.Failed (0 like it not logged)")));
    mRoom.Attach(mBus, PATH);
    const Answer stopping = Call("Later", "ay", 0);
    EXPECT_EQ(stopping.name, "org.freedesktop.DBus.Error.NoReply");
    EXPECT_EQ(stopping.text, "the service is stopping");
}

// Access -------------------------------------------------------------------------------------------------

TEST_F(ImplementsTest, CheckedMethodAsksTheTypedBus) {
    mRoom.Attach(mBus, PATH);
    EXPECT_EQ(Call("Guarded", "u", 4U).Get<std::uint32_t>(), 5U);
    mBus.verdict = -1;
    const Answer refused = Call("Guarded", "u", 4U);
    EXPECT_EQ(refused.name, ACCESS_DENIED);
    EXPECT_EQ(refused.text, "not you");
}

TEST_F(ImplementsTest, CheckedMethodGoesOnWhenTheCallerIsKnown) {
    mRoom.Attach(mBus, PATH);
    mBus.verdict = 0;
    Message reply;
    const auto keep = [](sd_bus_message* message, void* kept, sd_bus_error*) {
        static_cast<Message*>(kept)->reset(sd_bus_message_ref(message));
        return 1;
    };
    const Message call = mWire.NewCall(PATH, Room1::NAME, "Guarded", "u", 4U);
    Wire::Check(sd_bus_call_async(mWire.Client(), nullptr, call.get(), keep, &reply, 0));
    ASSERT_TRUE(mWire.Serve([this] { return mBus.parked != nullptr; }));
    EXPECT_EQ(reply, nullptr);
    mBus.verdict = 1;
    sd_bus_error error{};
    Wire::Check(sd_bus_message_rewind(mBus.parked.get(), 1));
    EXPECT_GT(mBus.parkedFor(mBus.parked.get(), mBus.parkedWith, &error), 0);
    ASSERT_TRUE(mWire.Serve([&] { return reply != nullptr; }));
    EXPECT_EQ(Answer(std::move(reply)).Get<std::uint32_t>(), 5U);
}

TEST_F(ImplementsTest, CheckedMethodWithoutATypedBusHasSdBusAsk) {
    EXPECT_EQ(Call("Guarded", "u", 4U).Get<std::uint32_t>(), 5U);  // the caller is this very user
}

TEST_F(ImplementsTest, CheckedMethodWithoutATypedBusIsClosedToOthers) {
    const LogCapture log;
    tern::test::FaultScope scope(fault_sd_bus_query_sender_privilege);
    fault_sd_bus_query_sender_privilege.Replace([](sd_bus_message*, int capability) {
        EXPECT_EQ(capability, CAP_SYS_TIME);
        return 0;
    });
    const Answer refused = Call("Guarded", "u", 4U);
    EXPECT_EQ(refused.name, ACCESS_DENIED);
    EXPECT_EQ(refused.text, "Access to com.example.Room1.Guarded() not permitted.");
    // Nor is it open when that cannot be found out.
    fault_sd_bus_query_sender_privilege.Fail(-ENODATA);
    EXPECT_NE(Call("Guarded", "u", 4U).name, "");
    EXPECT_THAT(
        log.Entries("Typed"),
        ElementsAre(
            tern::test::Info("Typed",
                             "com.example.Room1.Guarded of /com/example/Room, asked by nobody, refused: "
                             "org.freedesktop.DBus.Error.AccessDenied (0 like it not logged)"),
            tern::test::Info("Typed",
                             "com.example.Room1.Guarded of /com/example/Room, asked by nobody, refused: "
                             "No data available (0 like it not logged)")));
}

// Properties ---------------------------------------------------------------------------------------------

TEST_F(ImplementsTest, EveryFormOfGetterIsRead) {
    EXPECT_EQ(GetAs<double>("Temperature"), 20.0);
    EXPECT_EQ(GetAs<std::string>("Label"), "north");
    EXPECT_EQ(GetAs<std::uint16_t>("Serial"), 4711);
    EXPECT_TRUE(GetAs<bool>("Fragile"));
    EXPECT_EQ(GetAs<double>("Target"), 18.0);
    EXPECT_EQ(GetAs<Mode>("Power"), Mode::Off);
}

TEST_F(ImplementsTest, EveryFormOfSetterIsWritten) {
    mRoom.Attach(mBus, PATH);
    EXPECT_EQ(Set("Target", "d", 22.5).name, "");
    EXPECT_EQ(mRoom.target, 22.5);
    EXPECT_EQ(Set("Name", "s", "cellar").name, "");
    EXPECT_EQ(mRoom.name, "cellar");
    EXPECT_EQ(Set("Power", "s", "on").name, "");
    EXPECT_EQ(mRoom.power, Mode::On);
    EXPECT_EQ(Set("Silent", "i", 5).name, "");
    EXPECT_EQ(mRoom.silent, 5);
    EXPECT_THAT(TakeChanges(), ElementsAre("Target", "Name", "Power"));
}

TEST_F(ImplementsTest, SetterThatFailsAnswersItsErrorAndChangesNothing) {
    mRoom.Attach(mBus, PATH);
    const LogCapture log;
    const Answer name = Set("Name", "s", "");
    EXPECT_EQ(name.name, INVALID_ARGS);
    EXPECT_EQ(name.text, "a name is not empty");
    EXPECT_EQ(Set("Silent", "i", -1).name, ACCESS_DENIED);
    const Answer power = Set("Power", "s", "half");
    EXPECT_EQ(power.name, INVALID_ARGS);
    EXPECT_EQ(power.text, "property 'Power': 'half' is not one of its values");
    EXPECT_THAT(TakeChanges(), IsEmpty());
    EXPECT_EQ(mBus.wakes, 0);
    EXPECT_THAT(
        log.Entries("Typed"),
        ElementsAre(
            tern::test::Info("Typed",
                             "com.example.Room1.Name of /com/example/Room, asked by nobody, refused: "
                             "org.freedesktop.DBus.Error.InvalidArgs (0 like it not logged)"),
            tern::test::Info("Typed",
                             "com.example.Room1.Silent of /com/example/Room, asked by nobody, refused: "
                             "org.freedesktop.DBus.Error.AccessDenied (0 like it not logged)"),
            tern::test::Info("Typed",
                             "com.example.Room1.Power of /com/example/Room, asked by nobody, refused: "
                             "org.freedesktop.DBus.Error.InvalidArgs (0 like it not logged)")));
}

TEST_F(ImplementsTest, SetterThatReturnsFalseHasNotChangedAnything) {
    mRoom.Attach(mBus, PATH);
    EXPECT_EQ(Set("Power", "s", "off").name, "");
    EXPECT_THAT(TakeChanges(), IsEmpty());
    EXPECT_EQ(Set("Power", "s", "on").name, "");
    EXPECT_THAT(TakeChanges(), ElementsAre("Power"));
}

TEST_F(ImplementsTest, PropertyThatIsNotWritableIsNotWritten) {
    const Answer answer = Set("Temperature", "d", 1.0);
    EXPECT_EQ(answer.name, "org.freedesktop.DBus.Error.PropertyReadOnly");
    EXPECT_EQ(mRoom.temperature, 20.0);
}

TEST_F(ImplementsTest, GetterThatFailsAnswersItsError) {
    mRoom.isBroken = true;
    const Answer answer = Get("Fragile");
    EXPECT_EQ(answer.name, "com.example.Error.Broken");
    EXPECT_EQ(answer.text, "in pieces");
}

TEST_F(ImplementsTest, ExplicitPropertyIsLeftOutOfAll) {
    Answer all(
        mWire.Call(mWire.NewCall(PATH, "org.freedesktop.DBus.Properties", "GetAll", "s", Room1::NAME)));
    using Values = std::map<std::string, Any>;
    const auto values = all.Get<Values>();
    EXPECT_EQ(values.count("Power"), 0U);
    EXPECT_EQ(values.count("Target"), 1U);
    EXPECT_EQ(values.size(), 7U);
}

TEST_F(ImplementsTest, ValueThatCannotBeSentIsAFailureOfTheService) {
    const LogCapture log;
    mRoom.label = BAD_TEXT;
    const Answer label = Get("Label");
    EXPECT_EQ(label.name, FAILED);
    EXPECT_EQ(label.text, "the service failed internally");
    EXPECT_THAT(log.Entries("Typed"),
                ElementsAre(tern::test::Error(
                    "Typed",
                    "com.example.Room1.Label of /com/example/Room, asked by nobody: the "
                    "value cannot be sent (-22, Invalid argument) (0 like it not logged)")));
    mRoom.label = "fine";
    EXPECT_EQ(GetAs<std::string>("Label"), "fine");  // the connection lives
}
