#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/typed/caller.h>
#include <tern/typed/handling.h>
#include <tern/typed/implements.h>
#include <tern/typed/reply.h>

#include <cerrno>
#include <new>
#include <stdexcept>
#include <string>

#include "served_bus.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/private_bus.h"
#include "wire.h"

TERN_INTERPOSE(int, sd_bus_send, (sd_bus * bus, sd_bus_message* message, uint64_t* cookie),
               (bus, message, cookie))
using namespace mwl::Typed;
using tern::test::Answer;
using tern::test::LogCapture;
using tern::test::Wire;
using testing::ElementsAre;

namespace {

constexpr const char* PATH = "/com/example/Room";
const std::string BAD_TEXT = "\xFF";
constexpr const char* FAILED = "org.freedesktop.DBus.Error.Failed";
constexpr const char* NO_MEMORY = "org.freedesktop.DBus.Error.NoMemory";

enum class Thrown { Nothing, BadAlloc, RuntimeError, Error, UnsendableError, Number, BadText };

struct Trap1 {
    static constexpr const char* NAME = "com.example.Trap1";
    static constexpr Method<void()> Void{"Void", {}, OPEN};
    static constexpr Method<std::string()> Value{"Value", {"result"}, OPEN};
    static constexpr Method<void()> Status{"Status", {}, OPEN};
    static constexpr Method<std::string()> Maybe{"Maybe", {"result"}, OPEN};
    static constexpr Method<Results<std::string, std::string>()> Two{"Two", {"first", "second"}, OPEN};
    static constexpr Method<void()> Known{"Known", {}, OPEN};
    static constexpr Method<void(std::uint64_t)> Costly{"Costly", {"value"}, OPEN};
    static constexpr Property<std::string> Read{"Read"};
    static constexpr Property<std::string> MaybeRead{"MaybeRead"};
    static constexpr WritableProperty<double> Written{"Written", EMITS | OPEN};
    static constexpr WritableProperty<double> MaybeWritten{"MaybeWritten", EMITS | OPEN};
    static constexpr Members<Void, Value, Status, Maybe, Two, Known, Costly, Read, MaybeRead, Written,
                             MaybeWritten>
        ALL{};
};

/// Read by a codec that may fail as well.
struct Costly {
    std::uint64_t value = 0;
};
Thrown gReading = Thrown::Nothing;
int gReadResult = 1;

std::string ThrowIt(Thrown thrown) {
    switch (thrown) {
        case Thrown::BadAlloc:
            throw std::bad_alloc();
        case Thrown::RuntimeError:
            throw std::runtime_error("secret of the service");
        case Thrown::Error:
            throw Error("com.example.Error.Thrown", "as it is");
        case Thrown::UnsendableError:
            throw Error("com.example.Error.Thrown", "no character: \xEF\xBF\xBE");
        case Thrown::Number:
            throw 42;
        case Thrown::BadText:
            return BAD_TEXT;
        default:
            return "fine";
    }
}

}  // namespace

template <>
struct mwl::Typed::Codec<Costly> {
    static constexpr auto SIGNATURE = Text("t");
    static int Write(sd_bus_message* message, const Costly& value) {
        return Codec<std::uint64_t>::Write(message, value.value);
    }
    static int Read(sd_bus_message* message, Costly& value, Fault& fault) {
        ThrowIt(gReading);
        if (gReadResult < 0) {
            return gReadResult;
        }
        return Codec<std::uint64_t>::Read(message, value.value, fault);
    }
};

namespace {

struct Trap final : Implements<Trap, Trap1> {
    void Void() { ThrowIt(thrown); }
    std::string Value() { return ThrowIt(thrown); }
    StatusCode Status() {
        ThrowIt(thrown);
        return StatusCode::Ok;
    }
    Outcome<std::string> Maybe() { return ThrowIt(thrown); }
    Results<std::string, std::string> Two() { return {"first", ThrowIt(thrown)}; }
    void Known(const Caller&) { ThrowIt(thrown); }
    void Cost(Costly) {}
    std::string Read() const { return ThrowIt(thrown); }
    Outcome<std::string> MaybeRead() { return ThrowIt(thrown); }
    void SetWritten(double) { ThrowIt(thrown); }
    Outcome<void> SetMaybeWritten(const Caller&, double) {
        ThrowIt(thrown);
        return {};
    }
    Thrown thrown = Thrown::Nothing;
    double written = 0.0;
    static constexpr auto Describe() {
        return Bindings<Bind<Trap1::Void, &Trap::Void>, Bind<Trap1::Value, &Trap::Value>,
                        Bind<Trap1::Status, &Trap::Status>, Bind<Trap1::Maybe, &Trap::Maybe>,
                        Bind<Trap1::Two, &Trap::Two>, Bind<Trap1::Known, &Trap::Known>,
                        Bind<Trap1::Costly, &Trap::Cost>, Bind<Trap1::Read, &Trap::Read>,
                        Bind<Trap1::MaybeRead, &Trap::MaybeRead>,
                        Bind<Trap1::Written, &Trap::written, &Trap::SetWritten>,
                        Bind<Trap1::MaybeWritten, &Trap::written, &Trap::SetMaybeWritten>>();
    }
};

/// Uses a Trap's members from the other end of a wire.
struct TrapOnWire {
    TrapOnWire() {
        Wire::Check(sd_bus_add_object_vtable(wire.Server(), nullptr, PATH, Trap1::NAME, trap.GetVtable(),
                                             trap.GetUserData()));
    }
    ~TrapOnWire() {
        gReading = Thrown::Nothing;
        gReadResult = 1;
    }

    /// Calls a method, reads a property or writes one.
    Answer Use(const std::string& member) {
        if (member.ends_with("Read")) {
            return Answer(wire.Call(wire.NewCall(PATH, "org.freedesktop.DBus.Properties", "Get", "ss",
                                                 Trap1::NAME, member.c_str())));
        }
        if (member.ends_with("Written")) {
            return Answer(wire.Call(wire.NewCall(PATH, "org.freedesktop.DBus.Properties", "Set", "ssv",
                                                 Trap1::NAME, member.c_str(), "d", 1.0)));
        }
        if (member == "Costly") {
            return Answer(wire.Call(wire.NewCall(PATH, Trap1::NAME, member.c_str(), "t", std::uint64_t{1})));
        }
        return Answer(wire.Call(wire.NewCall(PATH, Trap1::NAME, member.c_str())));
    }

    Wire wire;
    Trap trap;
};

std::string AskedByNobody(const std::string& member) {
    return "com.example.Trap1." + member + " of /com/example/Room, asked by nobody";
}

}  // namespace

TEST(Handling, NothingThrownLeavesAHandlerOfAnyKind) {
    struct {
        Thrown thrown;
        const char* name;
        const char* text;
        const char* logged;
    } const table[] = {
        {Thrown::BadAlloc, NO_MEMORY, "out of memory", "std::bad_alloc: std::bad_alloc"},
        {Thrown::RuntimeError, FAILED, "the service failed internally",
         "std::runtime_error: secret of the service"},
        {Thrown::Error, "com.example.Error.Thrown", "as it is", nullptr},
        {Thrown::Number, FAILED, "the service failed internally", "int: no text"},
    };
    for (const std::string member : {"Void", "Value", "Status", "Maybe", "Two", "Known", "Costly", "Read",
                                     "MaybeRead", "Written", "MaybeWritten"}) {
        for (const auto& row : table) {
            SCOPED_TRACE(member + " " + row.name);
            TrapOnWire on;
            (member == "Costly" ? gReading : on.trap.thrown) = row.thrown;
            const LogCapture log;
            const Answer answer = on.Use(member);
            EXPECT_EQ(answer.name, row.name);
            EXPECT_EQ(answer.text, row.text);
            EXPECT_THAT(
                log.Entries("Typed"),
                ElementsAre(row.logged == nullptr
                                ? tern::test::Info("Typed", AskedByNobody(member) +
                                                                ", refused: com.example.Error.Thrown "
                                                                "(0 like it not logged)")
                                : tern::test::Error("Typed", AskedByNobody(member) + ", threw " + row.logged +
                                                                 " (0 like it not logged)")));
            on.trap.thrown = gReading = Thrown::Nothing;
            EXPECT_EQ(on.Use(member).name, "");  // the next one is served
        }
    }
}

/// sd-bus does not send U+FFFE. A caller whose error had it in its text got no answer at all.
TEST(Handling, AnErrorIsAnsweredWhateverItsTextIs) {
    for (const std::string member : {"Void", "Value", "Status", "Maybe", "Two", "Known", "Costly", "Read",
                                     "MaybeRead", "Written", "MaybeWritten"}) {
        SCOPED_TRACE(member);
        TrapOnWire on;
        (member == "Costly" ? gReading : on.trap.thrown) = Thrown::UnsendableError;
        const Answer answer = on.Use(member);
        EXPECT_EQ(answer.name, "com.example.Error.Thrown");
        EXPECT_EQ(answer.text, "no character: ???");
    }
}

TEST(Handling, HalfWrittenReplyIsNeverSent) {
    for (const std::string member : {"Value", "Maybe", "Two", "Read", "MaybeRead"}) {
        SCOPED_TRACE(member);
        TrapOnWire on;
        on.trap.thrown = Thrown::BadText;
        const LogCapture log;
        const Answer answer = on.Use(member);
        EXPECT_EQ(answer.name, FAILED);
        EXPECT_EQ(answer.text, "the service failed internally");
        EXPECT_THAT(
            log.Entries("Typed"),
            ElementsAre(tern::test::Error(
                "Typed", AskedByNobody(member) + ": the " + (member.ends_with("Read") ? "value" : "result") +
                             " cannot be sent (-22, Invalid argument) (0 like it not logged)")));
        on.trap.thrown = Thrown::Nothing;
        EXPECT_EQ(on.Use(member).name, "");
    }
}

TEST(Handling, GetterThatFailsFailsTheReadingOfAll) {
    TrapOnWire on;
    on.trap.thrown = Thrown::RuntimeError;
    const Answer all(
        on.wire.Call(on.wire.NewCall(PATH, "org.freedesktop.DBus.Properties", "GetAll", "s", Trap1::NAME)));
    EXPECT_EQ(all.name, FAILED);
    EXPECT_EQ(all.text, "the service failed internally");
}

TEST(Handling, ReplyThatIsNotSentIsLoggedAndAnError) {
    TrapOnWire on;
    const LogCapture log;
    tern::test::FaultScope scope(fault_sd_bus_send);
    fault_sd_bus_send.Fail(-ENOMEM, 0, 1, 1);  // the first is the call, which the client sends
    const Answer answer = on.Use("Value");
    EXPECT_EQ(answer.name, NO_MEMORY);
    EXPECT_THAT(log.Entries("Typed"),
                ElementsAre(tern::test::Error("Typed", AskedByNobody("Value") +
                                                           ": the reply was not sent (-12, Cannot allocate "
                                                           "memory) (0 like it not logged)")));
}

TEST(Handling, PeerThatProvokesFailuresDoesNotFillTheLog) {
    TrapOnWire on;
    const LogCapture log;
    on.trap.thrown = Thrown::RuntimeError;
    for (int i = 0; i < 25; ++i) {
        on.Use("Void");
    }
    EXPECT_EQ(log.Entries("Typed").size(), 10U);
    on.trap.thrown = Thrown::Error;  // counted apart
    for (int i = 0; i < 25; ++i) {
        on.Use("Void");
    }
    EXPECT_EQ(log.Entries("Typed").size(), 20U);
}

TEST(Handling, LogNamesTheCaller) {
    const tern::test::PrivateBus daemon;
    using Bus = mwl::Handle<sd_bus, sd_bus_flush_close_unref>;
    const auto connect = [] {
        sd_bus* bus = nullptr;
        Wire::Check(sd_bus_open_system(&bus));
        return Bus(bus);
    };
    const Bus service = connect();
    const Bus client = connect();
    Trap trap;
    trap.thrown = Thrown::RuntimeError;
    Wire::Check(sd_bus_add_object_vtable(service.get(), nullptr, PATH, Trap1::NAME, trap.GetVtable(),
                                         trap.GetUserData()));
    const char* serviceName = nullptr;
    const char* clientName = nullptr;
    Wire::Check(sd_bus_get_unique_name(service.get(), &serviceName));
    Wire::Check(sd_bus_get_unique_name(client.get(), &clientName));
    const LogCapture log;
    const std::string asked = std::string(" of /com/example/Room, asked by ") + clientName +
                              ", threw std::runtime_error: secret of the service (0 like it not logged)";
    Wire::Check(sd_bus_call_method_async(client.get(), nullptr, serviceName, PATH, Trap1::NAME, "Void",
                                         nullptr, nullptr, ""));
    Wire::Check(sd_bus_call_method_async(client.get(), nullptr, serviceName, PATH,
                                         "org.freedesktop.DBus.Properties", "Get", nullptr, nullptr, "ss",
                                         Trap1::NAME, "Read"));
    Wire::Check(sd_bus_call_method_async(client.get(), nullptr, serviceName, PATH,
                                         "org.freedesktop.DBus.Properties", "Set", nullptr, nullptr, "ssv",
                                         Trap1::NAME, "Written", "d", 1.0));
    Wire::Check(sd_bus_flush(client.get()));
    ASSERT_TRUE(tern::test::WaitUntil([&] {
        while (sd_bus_process(service.get(), nullptr) > 0) {
        }
        return log.Entries("Typed").size() == 3;
    }));
    EXPECT_THAT(log.Entries("Typed"),
                ElementsAre(tern::test::Error("Typed", "com.example.Trap1.Void" + asked),
                            tern::test::Error("Typed", "com.example.Trap1.Read" + asked),
                            tern::test::Error("Typed", "com.example.Trap1.Written" + asked)));
}

TEST(Handling, LateHandlerThatThrowsIsAnsweredByItsReplyAlone) {
    const struct {
        Thrown thrown;
        const char* logged;
    } table[] = {
        {Thrown::BadAlloc, "std::bad_alloc: std::bad_alloc"},
        {Thrown::RuntimeError, "std::runtime_error: secret of the service"},
        {Thrown::Error, "mwl::Typed::Error: no text"},
        {Thrown::Number, "int: no text"},
    };
    const tern::test::PrivateBus daemon;
    tern::test::Served served;
    tern::test::Room* const room = served.On([&] { return &served.Export(PATH); });
    tern::test::Peer peer;
    for (const auto& row : table) {
        SCOPED_TRACE(row.logged);
        const LogCapture log;
        served.On([&] { room->onLater = [&](Reply<std::uint32_t>, std::uint32_t) { ThrowIt(row.thrown); }; });
        EXPECT_EQ(peer.Call(PATH, tern::test::ROOM, "Later", "u", 1U),
                  "org.freedesktop.DBus.Error.Failed: the service dropped the call");
        peer.Ping();  // the handler has ended
        EXPECT_THAT(log.Entries("Typed"),
                    ElementsAre(tern::test::Error(
                        "Typed", "com.example.Room1.Later of /com/example/Room, asked by " + peer.Name() +
                                     ", threw " + row.logged + " (0 like it not logged)")));
    }
}

TEST(Handling, ArgumentThatCannotBeReadIsNotAlwaysTheCallersFault) {
    struct {
        int result;
        const char* name;
        const char* text;
    } const table[] = {
        {-ENOMEM, NO_MEMORY, "argument 'value': Cannot allocate memory"},
        {-EOPNOTSUPP, "org.freedesktop.DBus.Error.NotSupported", "argument 'value': Operation not supported"},
        {-EMFILE, "org.freedesktop.DBus.Error.LimitsExceeded", "argument 'value': Too many open files"},
        {-ENFILE, "org.freedesktop.DBus.Error.LimitsExceeded",
         "argument 'value': Too many open files in system"},
        {-EBADMSG, "org.freedesktop.DBus.Error.InvalidArgs", "argument 'value': Bad message"},
    };
    for (const auto& row : table) {
        TrapOnWire on;
        gReadResult = row.result;
        const Answer answer = on.Use("Costly");
        EXPECT_EQ(answer.name, row.name);
        EXPECT_EQ(answer.text, row.text);
    }
}
