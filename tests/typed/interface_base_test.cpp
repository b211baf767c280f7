#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/typed/attachment.h>
#include <tern/typed/implements.h>
#include <tern/typed/interface_base.h>

#include <string>

#include "support/interpose.h"
#include "support/log_capture.h"
#include "wire.h"

TERN_INTERPOSE(int, sd_bus_send, (sd_bus * bus, sd_bus_message* message, uint64_t* cookie),
               (bus, message, cookie))
TERN_INTERPOSE(int, sd_bus_message_new_signal,
               (sd_bus * bus, sd_bus_message** message, const char* path, const char* interface,
                const char* member),
               (bus, message, path, interface, member))

using namespace mwl::Typed;
using tern::test::Answer;
using tern::test::LogCapture;
using tern::test::Message;
using tern::test::Wire;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* PATH = "/com/example/Room";
const std::string BAD_TEXT = "\xFF";

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";
    static constexpr Method<void()> Nothing{"Nothing"};
    static constexpr Property<double> Temperature{"Temperature"};
    static constexpr Property<std::string> Label{"Label", INVALIDATES};
    static constexpr Property<double> Serial{"Serial", CONSTANT};
    static constexpr WritableProperty<double> Target{"Target", EMITS | OPEN};
    static constexpr WritableProperty<double> Silent{"Silent", OPEN};
    static constexpr WritableProperty<double> Power{"Power", INVALIDATES | EXPLICIT | OPEN};
    static constexpr Signal<double, std::string> Measured{"Measured", {"celsius", "where"}};
    static constexpr Signal<> Over{"Over", {}, DEPRECATED};
    static constexpr Members<Nothing, Temperature, Label, Serial, Target, Silent, Power, Measured, Over>
        ALL{};
};

struct Room final : Implements<Room, Room1> {
    void Nothing() {}
    void Set(double) {}
    double value = 0.0;
    std::string label;
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Nothing, &Room::Nothing>, Bind<Room1::Temperature, &Room::value>,
                        Bind<Room1::Label, &Room::label>, Bind<Room1::Serial, &Room::value>,
                        Bind<Room1::Target, &Room::value, &Room::Set>,
                        Bind<Room1::Silent, &Room::value, &Room::Set>,
                        Bind<Room1::Power, &Room::value, &Room::Set>>();
    }
};

/// Counts what it is told.
class StandInBus final : public Attachment {
public:
    explicit StandInBus(sd_bus* bus) : mBus(bus) {}
    sd_bus* GetBus() noexcept override { return mBus; }
    void OnChanged(InterfaceBase&) noexcept override { ++wakes; }
    std::shared_ptr<ReplyState> GetReplies() noexcept override { return nullptr; }
    int CheckCaller(InterfaceBase&, sd_bus_message*, int, sd_bus_message_handler_t, void*,
                    sd_bus_error*) noexcept override {
        return 1;
    }
    int wakes = 0;

private:
    sd_bus* mBus;
};

class InterfaceBaseTest : public testing::Test {
protected:
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

/// As many properties as announce their changes at most, behind methods that move their entries back.
constexpr char MANY_NAMES[64][4] = {
    "P0",  "P1",  "P2",  "P3",  "P4",  "P5",  "P6",  "P7",  "P8",  "P9",  "P10", "P11", "P12",
    "P13", "P14", "P15", "P16", "P17", "P18", "P19", "P20", "P21", "P22", "P23", "P24", "P25",
    "P26", "P27", "P28", "P29", "P30", "P31", "P32", "P33", "P34", "P35", "P36", "P37", "P38",
    "P39", "P40", "P41", "P42", "P43", "P44", "P45", "P46", "P47", "P48", "P49", "P50", "P51",
    "P52", "P53", "P54", "P55", "P56", "P57", "P58", "P59", "P60", "P61", "P62", "P63"};
template <std::size_t I>
constexpr Property<int> MANY{MANY_NAMES[I]};
template <std::size_t... I>
constexpr auto MakeMany(std::index_sequence<I...>) {
    return Members<Room1::Nothing, MANY<I>...>();
}
struct Many1 {
    static constexpr const char* NAME = "com.example.Many1";
    static constexpr auto ALL = MakeMany(std::make_index_sequence<64>());
};
struct Many final : Implements<Many, Many1> {
    void Nothing() {}
    int value = 0;
    template <std::size_t... I>
    static constexpr auto BindAll(std::index_sequence<I...>) {
        return Bindings<Bind<Room1::Nothing, &Many::Nothing>, Bind<MANY<I>, &Many::value>...>();
    }
    static constexpr auto Describe() { return BindAll(std::make_index_sequence<64>()); }
};

}  // namespace

TEST_F(InterfaceBaseTest, ChangesAreKeptUntilTheBusTakesThem) {
    mRoom.Attach(mBus, PATH);
    EXPECT_THAT(TakeChanges(), IsEmpty());
    mRoom.Changed<Room1::Target>();
    mRoom.Changed<Room1::Temperature, Room1::Label>();
    mRoom.Changed<Room1::Temperature>();
    EXPECT_EQ(mBus.wakes, 1);
    EXPECT_THAT(TakeChanges(), ElementsAre("Temperature", "Label", "Target"));
    EXPECT_THAT(TakeChanges(), IsEmpty());
    mRoom.Changed<Room1::Power>();
    EXPECT_EQ(mBus.wakes, 2);
    EXPECT_THAT(TakeChanges(), ElementsAre("Power"));
}

TEST_F(InterfaceBaseTest, ChangesWhileOnNoBusAreForgottenAndLoggedOnce) {
    const LogCapture log;
    mRoom.Changed<Room1::Target>();
    mRoom.Changed<Room1::Target>();
    EXPECT_EQ(mRoom.Emit<Room1::Over>(), StatusCode::NotInitialized);
    EXPECT_EQ(log.Entries("Typed").size(), 1U);
    mRoom.Attach(mBus, PATH);
    EXPECT_EQ(mRoom.GetAttachment(), &mBus);
    EXPECT_EQ(mRoom.GetPath(), PATH);
    EXPECT_THAT(TakeChanges(), IsEmpty());
    mRoom.Changed<Room1::Target>();
    mRoom.Detach();
    EXPECT_EQ(mRoom.GetAttachment(), nullptr);
    EXPECT_EQ(mRoom.GetPath(), "");
    EXPECT_THAT(TakeChanges(), IsEmpty());
    EXPECT_EQ(mBus.wakes, 1);
}

TEST_F(InterfaceBaseTest, SignalIsSentAtOnce) {
    Message got;
    Wire::Check(sd_bus_add_filter(
        mWire.Client(), nullptr,
        [](sd_bus_message* message, void* kept, sd_bus_error*) {
            static_cast<Message*>(kept)->reset(sd_bus_message_ref(message));
            return 0;
        },
        &got));
    mRoom.Attach(mBus, PATH);
    EXPECT_EQ(mRoom.Emit<Room1::Measured>(21.5, "hall"), StatusCode::Ok);
    ASSERT_TRUE(mWire.Serve([&] { return got != nullptr; }));
    EXPECT_GT(sd_bus_message_is_signal(got.get(), Room1::NAME, "Measured"), 0);
    EXPECT_STREQ(sd_bus_message_get_path(got.get()), PATH);
    Wire::Check(sd_bus_message_rewind(got.get(), 1));
    Answer signal(std::move(got));
    EXPECT_EQ(signal.Signature(), "ds");
    EXPECT_EQ(signal.Get<double>(), 21.5);
    EXPECT_EQ(signal.Get<std::string>(), "hall");
}

TEST_F(InterfaceBaseTest, SignalWithAValueThatCannotBeSentIsNotSent) {
    mRoom.Attach(mBus, PATH);
    const LogCapture log;
    tern::test::FaultScope scope(fault_sd_bus_send);
    fault_sd_bus_send.Fail(-EIO, 0, 1000);
    EXPECT_EQ(mRoom.Emit<Room1::Measured>(21.5, BAD_TEXT), StatusCode::InvalidArgument);
    EXPECT_EQ(fault_sd_bus_send.Calls(), 0);
    EXPECT_EQ(mRoom.Emit<Room1::Over>(), StatusCode::IoError);
    EXPECT_EQ(fault_sd_bus_send.Calls(), 1);
    tern::test::FaultScope noSignal(fault_sd_bus_message_new_signal);
    fault_sd_bus_message_new_signal.Fail(-ENOMEM);
    EXPECT_EQ(mRoom.Emit<Room1::Over>(), StatusCode::OutOfMemory);
    EXPECT_THAT(
        log.Entries("Typed"),
        ElementsAre(
            tern::test::Error("Typed",
                              "Failed to send the signal com.example.Room1.Measured of "
                              "/com/example/Room (-22, Invalid argument) (0 like it not logged)"),
            tern::test::Error("Typed",
                              "Failed to send the signal com.example.Room1.Over of "
                              "/com/example/Room (-5, Input/output error) (0 like it not logged)"),
            tern::test::Error("Typed",
                              "Failed to send the signal com.example.Room1.Over of "
                              "/com/example/Room (-12, Cannot allocate memory) (0 like it not logged)")));
}

TEST_F(InterfaceBaseTest, SixtyFourPropertiesMayChange) {
    Many many;
    many.Attach(mBus, PATH);
    many.Changed<MANY<0>, MANY<31>, MANY<32>, MANY<63>>();
    InterfaceBase::Names names;
    ASSERT_EQ(many.TakeChanges(names), 4U);
    EXPECT_THAT((std::vector<std::string>{names.data(), names.data() + 4}),
                ElementsAre("P0", "P31", "P32", "P63"));
    [&]<std::size_t... I>(std::index_sequence<I...>) {
        many.Changed<MANY<I>...>();
    }
    (std::make_index_sequence<64>());
    EXPECT_EQ(many.TakeChanges(names), 64U);
    EXPECT_STREQ(names[63], "P63");
    EXPECT_EQ(names[64], nullptr);
}
