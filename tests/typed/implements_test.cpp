#include "typed/implements_fixture.h"

namespace {

using namespace mwl::Typed::Tests;

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

}  // namespace
