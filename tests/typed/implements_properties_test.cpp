// Properties: every form of getter and setter.

#include "typed/implements_fixture.h"

namespace {

using namespace mwl::Typed::Tests;

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

}  // namespace
