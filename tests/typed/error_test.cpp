#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <tern/typed/error.h>

#include <memory>
#include <thread>

#include "support/private_bus.h"
#include "wire.h"

using mwl::Typed::Error;
using mwl::Typed::Outcome;
using mwl::Typed::StatusCode;

namespace {

constexpr StatusCode ALL[] = {StatusCode::Failure,
                              StatusCode::AccessDenied,
                              StatusCode::StreamError,
                              StatusCode::Busy,
                              StatusCode::Stopping,
                              StatusCode::Deadlock,
                              StatusCode::AlreadyExists,
                              StatusCode::Interrupted,
                              StatusCode::IoError,
                              StatusCode::KeyNotFound,
                              StatusCode::InvalidArgument,
                              StatusCode::NotFound,
                              StatusCode::OpenFailed,
                              StatusCode::OutOfMemory,
                              StatusCode::NotInitialized,
                              StatusCode::NotSupported,
                              StatusCode::Timeout,
                              StatusCode::NotPermitted,
                              StatusCode::ResourceUnavailable};

struct NameAndStatus {
    const char* name;
    StatusCode status;
};

}  // namespace

TEST(Error, OfAStatusHasTheStandardNameWhereThereIsOne) {
    const NameAndStatus table[] = {
        {"org.freedesktop.DBus.Error.AccessDenied", StatusCode::AccessDenied},
        {"org.freedesktop.DBus.Error.AccessDenied", StatusCode::NotPermitted},
        {"org.freedesktop.DBus.Error.InvalidArgs", StatusCode::InvalidArgument},
        {"org.freedesktop.DBus.Error.NotSupported", StatusCode::NotSupported},
        {"org.freedesktop.DBus.Error.NoMemory", StatusCode::OutOfMemory},
        {"org.freedesktop.DBus.Error.Timeout", StatusCode::Timeout},
        {"org.freedesktop.DBus.Error.LimitsExceeded", StatusCode::ResourceUnavailable}};
    std::size_t own = 0;
    for (const StatusCode status : ALL) {
        const Error error(status);
        std::string name = "mwl.StatusCode." + mw::tern::ConvertStatusCodeToString(status);
        ++own;
        for (const NameAndStatus& row : table) {
            if (row.status == status) {
                name = row.name;
                --own;
            }
        }
        EXPECT_EQ(error.GetName(), name);
        EXPECT_EQ(error.GetText(), mw::tern::ConvertStatusCodeToString(status));
    }
    EXPECT_EQ(own, std::size(ALL) - std::size(table));
}

TEST(Error, OfEveryStatusGivesThatStatusBackButForNotPermitted) {
    for (const StatusCode status : ALL) {
        EXPECT_EQ(Error(status).GetStatus(),
                  status == StatusCode::NotPermitted ? StatusCode::AccessDenied : status);
    }
}

TEST(Error, NamedAfterAStatusGivesItBackWhicheverItIs) {
    for (const StatusCode status : ALL) {
        const std::string name = "mwl.StatusCode." + mw::tern::ConvertStatusCodeToString(status);
        EXPECT_EQ(Error(name, "").GetStatus(), status) << name;
    }
    EXPECT_EQ(Error("mwl.StatusCode.Ok", "").GetStatus(), StatusCode::Failure);
    EXPECT_EQ(Error("mwl.StatusCode.Unheard", "").GetStatus(), StatusCode::Failure);
    EXPECT_EQ(Error("mwl.StatusCode.Failure.Deeper", "").GetStatus(), StatusCode::Failure);
}

TEST(Error, OfAStatusOutsideTheListKeepsItsNumber) {
    const auto outside = static_cast<StatusCode>(77);
    const Error error(outside);
    EXPECT_EQ(error.GetName(), "mwl.StatusCode.Number77");
    EXPECT_EQ(error.GetText(), "StatusCode(77)");
    EXPECT_EQ(error.GetStatus(), outside);
    EXPECT_EQ(Error("mwl.StatusCode.Number4294967295", "").GetStatus(), static_cast<StatusCode>(4294967295U));
    for (const char* wrong : {"Number", "Number0", "NumberX", "Number1x", "Number4294967296"}) {
        EXPECT_EQ(Error(std::string("mwl.StatusCode.") + wrong, "").GetStatus(), StatusCode::Failure)
            << wrong;
    }
}

TEST(Error, OfOkIsAFailure) {
    const Error error(StatusCode::Ok);
    EXPECT_EQ(error.GetName(), "mwl.StatusCode.Failure");
    EXPECT_EQ(error.GetText(), "Failure");
    EXPECT_EQ(error.GetStatus(), StatusCode::Failure);
}

TEST(Error, OfOthersGivesTheNearestStatus) {
    const std::string standard = "org.freedesktop.DBus.Error.";
    const NameAndStatus table[] = {{"AccessDenied", StatusCode::AccessDenied},
                                   {"AuthFailed", StatusCode::AccessDenied},
                                   {"InteractiveAuthorizationRequired", StatusCode::AccessDenied},
                                   {"InvalidArgs", StatusCode::InvalidArgument},
                                   {"InvalidSignature", StatusCode::InvalidArgument},
                                   {"InconsistentMessage", StatusCode::InvalidArgument},
                                   {"BadAddress", StatusCode::InvalidArgument},
                                   {"MatchRuleInvalid", StatusCode::InvalidArgument},
                                   {"NotSupported", StatusCode::NotSupported},
                                   {"UnknownMethod", StatusCode::NotSupported},
                                   {"UnknownInterface", StatusCode::NotSupported},
                                   {"UnknownProperty", StatusCode::NotSupported},
                                   {"PropertyReadOnly", StatusCode::NotPermitted},
                                   {"NoMemory", StatusCode::OutOfMemory},
                                   {"Timeout", StatusCode::Timeout},
                                   {"TimedOut", StatusCode::Timeout},
                                   {"LimitsExceeded", StatusCode::ResourceUnavailable},
                                   {"ServiceUnknown", StatusCode::NotFound},
                                   {"NameHasNoOwner", StatusCode::NotFound},
                                   {"UnknownObject", StatusCode::NotFound},
                                   {"FileNotFound", StatusCode::NotFound},
                                   {"MatchRuleNotFound", StatusCode::NotFound},
                                   {"FileExists", StatusCode::AlreadyExists},
                                   {"AddressInUse", StatusCode::AlreadyExists},
                                   {"ObjectPathInUse", StatusCode::AlreadyExists},
                                   {"IOError", StatusCode::IoError},
                                   {"Disconnected", StatusCode::IoError},
                                   {"NoServer", StatusCode::IoError},
                                   {"NoNetwork", StatusCode::IoError},
                                   {"NoReply", StatusCode::NotFound},
                                   {"Failed", StatusCode::Failure},
                                   {"SomethingNew", StatusCode::Failure}};
    for (const NameAndStatus& row : table) {
        EXPECT_EQ(Error(standard + row.name, "").GetStatus(), row.status) << row.name;
    }
    EXPECT_EQ(Error("System.Error.ENOENT", "").GetStatus(), StatusCode::NotFound);
    EXPECT_EQ(Error("System.Error.EDEADLK", "").GetStatus(), StatusCode::Deadlock);
    EXPECT_EQ(Error("com.example.Error.TooHot", "").GetStatus(), StatusCode::Failure);
}

TEST(Error, FactoriesGiveTheirNames) {
    const std::string standard = "org.freedesktop.DBus.Error.";
    EXPECT_EQ(Error::InvalidArgs("t"), Error(standard + "InvalidArgs", "t"));
    EXPECT_EQ(Error::AccessDenied("t"), Error(standard + "AccessDenied", "t"));
    EXPECT_EQ(Error::NotSupported("t"), Error(standard + "NotSupported", "t"));
    EXPECT_EQ(Error::NoMemory("t"), Error(standard + "NoMemory", "t"));
    EXPECT_EQ(Error::Timeout("t"), Error(standard + "Timeout", "t"));
    EXPECT_EQ(Error::LimitsExceeded("t"), Error(standard + "LimitsExceeded", "t"));
    EXPECT_EQ(Error::Failed("t"), Error(standard + "Failed", "t"));
    EXPECT_EQ(Error::NoReply("t"), Error(standard + "NoReply", "t"));
    EXPECT_EQ(Error::WrongReply("t"), Error("mwl.Typed.Error.WrongReply", "t"));
    EXPECT_EQ(Error(StatusCode::Busy, "t"), Error("mwl.StatusCode.Busy", "t"));
    EXPECT_FALSE(Error::Failed("t") == Error::Failed("u"));
    EXPECT_FALSE(Error::Failed("t") == Error::NoReply("t"));
}

TEST(Error, WithANameThatDBusDoesNotKnowHasFailed) {
    const std::string tooLong = "a." + std::string(254, 'b');
    for (const std::string& name :
         {std::string(), std::string("Single"), std::string("a.b c"), std::string("a..b"),
          std::string("a.1b"), std::string(".a.b"), std::string("a.b."), std::string("a.\xC3\xA4"),
          std::string("a.b\0.c", 6), tooLong}) {
        const Error error(name, "why");
        EXPECT_EQ(error.GetName(), "org.freedesktop.DBus.Error.Failed") << name;
        EXPECT_TRUE(error.GetText().ends_with(": why")) << error.GetText();
    }
    EXPECT_EQ(Error("a b", "why").GetText(), "a b: why");
    const std::string longest = "a." + std::string(253, 'b');
    EXPECT_EQ(Error(longest, "").GetName(), longest);
    EXPECT_EQ(Error("_a.b9", "").GetName(), "_a.b9");
}

TEST(Error, TextIsMadeFitToBeSent) {
    struct {
        std::string_view given;
        std::string_view sent;
    } const table[] = {{"plain", "plain"},
                       {"", ""},
                       {"\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80", "\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80"},
                       {{"a\0b", 3}, "a?b"},
                       {"\x80", "?"},
                       {"\xC3", "?"},
                       {"\xC3(", "?("},
                       {"\xE2\x82", "??"},
                       {"\xE2\x82z", "??z"},
                       {"\xC0\x80", "??"},
                       {"\xC1\xBF", "??"},
                       {"\xE0\x9F\xBF", "???"},
                       {"\xE0\xA0\x80", "\xE0\xA0\x80"},
                       {"\xED\xA0\x80", "???"},
                       {"\xED\x9F\xBF", "\xED\x9F\xBF"},
                       {"\xF0\x8F\xBF\xBF", "????"},
                       {"\xF0\x90\x80\x80", "\xF0\x90\x80\x80"},
                       {"\xF4\x8F\xBF\xBD", "\xF4\x8F\xBF\xBD"},
                       // No characters: sd-bus refuses to send them.
                       {"\xF4\x8F\xBF\xBF", "????"},
                       {"\xF0\x9F\xBF\xBE", "????"},
                       {"\xEF\xB7\x8F", "\xEF\xB7\x8F"},
                       {"\xEF\xB7\x90", "???"},
                       {"\xEF\xB7\xAF", "???"},
                       {"\xEF\xB7\xB0", "\xEF\xB7\xB0"},
                       {"\xEF\xBF\xBD", "\xEF\xBF\xBD"},
                       {"a\xEF\xBF\xBEz", "a???z"},
                       {"\xEF\xBF\xBF", "???"},
                       {"\xF4\x90\x80\x80", "????"},
                       {"\xF5\x80\x80\x80", "????"},
                       {"\xFF", "?"}};
    for (const auto& row : table) {
        EXPECT_EQ(Error::Failed(row.given).GetText(), row.sent) << row.given;
    }
}

TEST(Error, OfSdBusIsTheErrorOrElseTheNumber) {
    sd_bus_error error{"com.example.Error.TooHot", "72", 0};
    EXPECT_EQ(Error::FromBus(error, -EIO), Error("com.example.Error.TooHot", "72"));
    error = {"com.example.Error.TooHot", nullptr, 0};
    EXPECT_EQ(Error::FromBus(error, -EIO), Error("com.example.Error.TooHot", ""));
    error = {};
    EXPECT_EQ(Error::FromBus(error, -EEXIST), Error("mwl.StatusCode.AlreadyExists", "File exists"));
    EXPECT_EQ(Error::FromBus(error, 0).GetStatus(), StatusCode::Failure);
    error = {SD_BUS_ERROR_NO_REPLY, "late", 0};
    EXPECT_EQ(Error::FromBus(error, -ETIMEDOUT).GetStatus(), StatusCode::Timeout);
    EXPECT_EQ(Error::FromBus(error, -EHOSTUNREACH).GetStatus(), StatusCode::NotFound);
}

namespace {

/// A caller and a peer that answers nothing, on a bus of their own.
class NoReplyTest : public testing::Test {
protected:
    NoReplyTest() {
        const char* name = nullptr;
        tern::test::Wire::Check(sd_bus_get_unique_name(mPeer.get(), &name));
        sd_bus_message* call = nullptr;
        tern::test::Wire::Check(
            sd_bus_message_new_method_call(mCaller.get(), &call, name, "/", "com.example.Mute", "Ask"));
        mCall.reset(call);
    }

    using Bus = mwl::Handle<sd_bus, sd_bus_close_unref>;
    static Bus Connect() {
        sd_bus* bus = nullptr;
        tern::test::Wire::Check(sd_bus_open_system(&bus));
        return Bus(bus);
    }

    void Send(std::uint64_t timeoutUs) {
        const auto keep = [](sd_bus_message* message, void* reply, sd_bus_error*) {
            static_cast<tern::test::Message*>(reply)->reset(sd_bus_message_ref(message));
            return 1;
        };
        tern::test::Wire::Check(
            sd_bus_call_async(mCaller.get(), nullptr, mCall.get(), keep, &mReply, timeoutUs));
        tern::test::Wire::Check(sd_bus_flush(mCaller.get()));
    }

    /// The bus has handed the call to the peer.
    bool Arrives() {
        return tern::test::WaitUntil([this] {
            sd_bus_message* got = nullptr;
            while (sd_bus_process(mPeer.get(), &got) > 0) {
                const tern::test::Message owner(got);
                if (got != nullptr && sd_bus_message_is_method_call(got, "com.example.Mute", "Ask") > 0) {
                    return true;
                }
            }
            return false;
        });
    }

    Error AwaitError() {
        if (!tern::test::WaitUntil([this] {
                while (sd_bus_process(mCaller.get(), nullptr) > 0) {
                }
                return mReply != nullptr;
            })) {
            throw std::runtime_error("no reply of any kind");
        }
        return Error::FromReply(mReply.get());
    }

    tern::test::PrivateBus mDaemon;
    Bus mCaller = Connect();
    Bus mPeer = Connect();
    tern::test::Message mCall;
    tern::test::Message mReply;
};

}  // namespace

TEST_F(NoReplyTest, ThatWasNotWaitedForAnyLongerIsATimeout) {
    Send(1);
    EXPECT_EQ(AwaitError().GetStatus(), StatusCode::Timeout);
}

TEST_F(NoReplyTest, OfAPeerThatHasGoneIsNotFound) {
    Send(UINT64_MAX);
    ASSERT_TRUE(Arrives());
    mPeer.reset();
    const Error error = AwaitError();
    EXPECT_EQ(error.GetName(), "org.freedesktop.DBus.Error.NoReply");
    EXPECT_EQ(error.GetStatus(), StatusCode::NotFound);
}

TEST_F(NoReplyTest, OfABusThatHasGoneIsAnIoError) {
    Send(UINT64_MAX);
    ASSERT_TRUE(Arrives());
    mDaemon.Kill();
    const Error error = AwaitError();
    // The latter from systemd 262 on.
    EXPECT_THAT(error.GetName(), testing::AnyOf("org.freedesktop.DBus.Error.NoReply",
                                                "org.freedesktop.DBus.Error.Disconnected"));
    EXPECT_EQ(error.GetStatus(), StatusCode::IoError);
}

TEST(Error, OfAReplyThatIsNoErrorHasFailed) {
    tern::test::Wire wire;
    const tern::test::Message call = wire.NewCall("/", "org.freedesktop.DBus.Peer", "Ping");
    const tern::test::Message reply = wire.Call(call);
    EXPECT_EQ(Error::FromReply(reply.get()), Error::Failed("the reply is no error"));
}

TEST(Outcome, HoldsAValueOrAnError) {
    Outcome<std::string> value = "text";
    ASSERT_TRUE(value.IsOk());
    EXPECT_EQ(*value, "text");
    EXPECT_EQ(value->size(), 4U);
    value->append("s");
    EXPECT_EQ(*std::as_const(value), "texts");
    EXPECT_EQ(std::as_const(value)->size(), 5U);
    const std::string taken = *std::move(value);
    EXPECT_EQ(taken, "texts");
    EXPECT_THROW(static_cast<void>(value.GetError()), std::bad_variant_access);

    const Outcome<std::string> error = Error::Failed("why");
    ASSERT_FALSE(error.IsOk());
    EXPECT_EQ(error.GetError(), Error::Failed("why"));
    EXPECT_THROW(static_cast<void>(*error), std::bad_variant_access);
}

TEST(Outcome, OfANumberTakesAStatusForAnError) {
    const Outcome<unsigned> error = StatusCode::Timeout;
    ASSERT_FALSE(error.IsOk());
    EXPECT_EQ(error.GetError().GetStatus(), StatusCode::Timeout);
    const Outcome<unsigned> ok = StatusCode::Ok;  // no value, so no success
    ASSERT_FALSE(ok.IsOk());
    EXPECT_EQ(ok.GetError().GetStatus(), StatusCode::Failure);
    const Outcome<unsigned> number = 76U;
    ASSERT_TRUE(number.IsOk());
    EXPECT_EQ(*number, 76U);
}

TEST(Outcome, HoldsWhatCannotBeCopied) {
    Outcome<std::unique_ptr<int>> outcome = std::make_unique<int>(3);
    ASSERT_TRUE(outcome.IsOk());
    Outcome<std::unique_ptr<int>> moved = std::move(outcome);
    EXPECT_EQ(**moved, 3);
}

TEST(Outcome, OfNothingIsDoneOrAnError) {
    EXPECT_TRUE(Outcome<void>().IsOk());
    EXPECT_TRUE(Outcome<void>(StatusCode::Ok).IsOk());
    const Outcome<void> busy = StatusCode::Busy;
    ASSERT_FALSE(busy.IsOk());
    EXPECT_EQ(busy.GetError().GetStatus(), StatusCode::Busy);
    const Outcome<void> failed = Error::Failed("why");
    ASSERT_FALSE(failed.IsOk());
    EXPECT_EQ(failed.GetError(), Error::Failed("why"));
    EXPECT_THROW(static_cast<void>(Outcome<void>().GetError()), std::bad_optional_access);
}
