#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <tern/typed/decode.h>
#include <tern/typed/remote.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <map>
#include <new>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <variant>
#include <vector>

#include "support/interpose.h"
#include "support/log_capture.h"
#include "tests/dbus_message/test_messages.h"
#include "typed/served_bus.h"
#include "typed/wire.h"

TERN_INTERPOSE(int, sd_bus_message_read_basic, (sd_bus_message * message, char type, void* value),
               (message, type, value))

namespace {

/// Throws what the test wants.
struct Odd {};
bool gIsOutOfMemory = false;

enum class Heat : std::uint32_t { Off = 1, On = 2 };
constexpr auto DBusEnum(Heat) {
    return std::array{Heat::Off, Heat::On};
}

}  // namespace

template <>
struct mwl::Typed::Codec<Odd> {
    static constexpr Text<1> SIGNATURE = "u";
    static int Write(sd_bus_message*, const Odd&) { return 0; }
    static int Read(sd_bus_message*, Odd&, Fault&) {
        if (gIsOutOfMemory) {
            throw std::bad_alloc();
        }
        throw std::runtime_error("odd");
    }
};

namespace mwl::Typed {
namespace {

using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::Message;
using tern::test::Wire;

/// Replies as they come over a wire.
class DecodeTest : public testing::Test {
protected:
    DecodeTest() {
        sd_bus_add_object(
            mWire.Server(), nullptr, "/",
            [](sd_bus_message* call, void* userdata, sd_bus_error*) {
                auto& self = *static_cast<DecodeTest*>(userdata);
                sd_bus_message* made = nullptr;
                const int r = self.mError != nullptr
                                  ? sd_bus_message_new_method_errorf(call, &made, self.mError, "%s", "why")
                                  : sd_bus_message_new_method_return(call, &made);
                const Message reply(made);
                Wire::Check(r);
                if (self.mFill) {
                    Wire::Check(self.mFill(made));
                }
                return sd_bus_send(nullptr, made, nullptr);
            },
            this);
    }

    Message Reply(const std::function<int(sd_bus_message*)>& fill = nullptr, const char* error = nullptr) {
        mFill = fill;
        mError = error;
        return mWire.Call(mWire.NewCall("/", "com.example.Any1", "Any"));
    }
    template <typename... Argument>
    Message Of(const char* types, Argument... argument) {
        return Reply([=](sd_bus_message* reply) { return sd_bus_message_append(reply, types, argument...); });
    }
    template <class R>
    static std::string Said(const Outcome<R>& outcome) {
        return outcome.IsOk() ? "" : outcome.GetError().GetName() + ": " + outcome.GetError().GetText();
    }

    Wire mWire;
    std::function<int(sd_bus_message*)> mFill;
    const char* mError = nullptr;
};

TEST_F(DecodeTest, GivesNothingOneOrSeveralResults) {
    EXPECT_TRUE(Decode<void>(Reply().get()).IsOk());
    EXPECT_EQ(*Decode<std::uint32_t>(Of("u", 7U).get()), 7U);
    EXPECT_EQ(*Decode<std::vector<std::string>>(Of("as", 2, "a", "b").get()),
              (std::vector<std::string>{"a", "b"}));
    const auto [text, number] = *Decode<Results<std::string, double>>(Of("sd", "warm", 20.5).get());
    EXPECT_EQ(text, "warm");
    EXPECT_EQ(number, 20.5);
    EXPECT_TRUE(Decode<Results<>>(Reply().get()).IsOk());
}

TEST_F(DecodeTest, GivesThePeersErrorAsItIs) {
    const Message reply = Reply(nullptr, "com.example.Error.TooHot");
    EXPECT_EQ(Said(Decode<void>(reply.get())), "com.example.Error.TooHot: why");
    EXPECT_EQ(Said(Decode<std::string>(reply.get())), "com.example.Error.TooHot: why");
    EXPECT_EQ(Said(DecodeVariant<std::string>(reply.get())), "com.example.Error.TooHot: why");
}

TEST_F(DecodeTest, RefusesAnotherSignature) {
    EXPECT_EQ(Said(Decode<std::string>(Of("u", 7U).get())),
              "mwl.Typed.Error.WrongReply: a reply of 'u' where 's' is wanted");
    EXPECT_EQ(Said(Decode<void>(Of("u", 7U).get())),
              "mwl.Typed.Error.WrongReply: a reply of 'u' where '' is wanted");
    EXPECT_EQ(Said(Decode<std::string>(Reply().get())),
              "mwl.Typed.Error.WrongReply: a reply of '' where 's' is wanted");
    EXPECT_EQ(Said(Decode<Results<std::string, double>>(Of("(sd)", "warm", 1.0).get())),
              "mwl.Typed.Error.WrongReply: a reply of '(sd)' where 'sd' is wanted");
    EXPECT_EQ(Decode<void>(Of("u", 7U).get()).GetError().GetStatus(), StatusCode::Failure);
}

TEST_F(DecodeTest, RefusesAValueOutsideItsType) {
    EXPECT_EQ(Said(Decode<Heat>(Of("u", 7U).get())),
              "mwl.Typed.Error.WrongReply: the result: 7 is not one of its values");
    EXPECT_EQ(Said(Decode<Results<std::string, std::vector<Heat>>>(Of("sau", "a", 2, 1U, 7U).get())),
              "mwl.Typed.Error.WrongReply: result 2[1]: 7 is not one of its values");
    EXPECT_EQ(Said(Decode<std::array<std::uint32_t, 3>>(Of("au", 2, 1U, 7U).get())),
              "mwl.Typed.Error.WrongReply: the result: 2 elements where 3 are wanted");
}

TEST_F(DecodeTest, LooksIntoAVariantForAProperty) {
    EXPECT_EQ(*DecodeVariant<std::string>(Of("v", "s", "warm").get()), "warm");
    EXPECT_EQ(*DecodeVariant<Any>(Of("v", "v", "u", 7U).get())->As<std::uint32_t>(), 7U);
    EXPECT_EQ(Said(DecodeVariant<std::string>(Of("v", "u", 7U).get())),
              "mwl.Typed.Error.WrongReply: the result: 'u' where 's' is wanted");
    EXPECT_EQ(Said(DecodeVariant<Heat>(Of("v", "u", 7U).get())),
              "mwl.Typed.Error.WrongReply: the result: 7 is not one of its values");
    EXPECT_EQ(Said(DecodeVariant<std::string>(Of("s", "warm").get())),
              "mwl.Typed.Error.WrongReply: a reply of 's' where 'v' is wanted");
}

TEST_F(DecodeTest, TellsWhatIsNotThePeersFault) {
    const struct {
        int error;
        const char* said;
    } table[] = {
        {-ENOMEM, "org.freedesktop.DBus.Error.NoMemory: the result: Cannot allocate memory"},
        {-EMFILE, "org.freedesktop.DBus.Error.LimitsExceeded: the result: Too many open files"},
        {-EBADMSG, "mwl.Typed.Error.WrongReply: the result: Bad message"},
    };
    for (const auto& row : table) {
        const Message reply = Of("u", 7U);
        const FaultScope scope(fault_sd_bus_message_read_basic);
        fault_sd_bus_message_read_basic.Fail(row.error);
        EXPECT_EQ(Said(Decode<std::uint32_t>(reply.get())), row.said);
    }
    gIsOutOfMemory = true;
    EXPECT_EQ(Said(Decode<Odd>(Of("u", 7U).get())),
              "org.freedesktop.DBus.Error.NoMemory: the result: Cannot allocate memory");
    gIsOutOfMemory = false;
    EXPECT_THROW(static_cast<void>(Decode<Odd>(Of("u", 7U).get())), std::runtime_error);
}

TEST_F(DecodeTest, CountsAndLogsForTheBusOfTheObject) {
    LogCapture log(4);
    const Bus bus;
    const Remote remote(bus, "com.example.Peer", "/peer");
    static_cast<void>(Decode<std::string>(Of("u", 7U).get(), &remote));
    static_cast<void>(Decode<Heat>(Of("u", 7U).get(), &remote));
    static_cast<void>(Decode<Heat>(Reply(nullptr, "com.example.Error.TooHot").get(), &remote));
    static_cast<void>(Decode<Heat>(Of("u", 1U).get(), &remote));
    EXPECT_EQ(bus.GetCounters().wrongReplies, 2U);
    EXPECT_THAT(
        log.Entries("Typed"),
        testing::ElementsAre(
            tern::test::Warning("Typed",
                                "com.example.Peer /peer: a reply of 'u' where 's' is wanted (0 like "
                                "it not logged)"),
            tern::test::Warning("Typed",
                                "com.example.Peer /peer: a reply with a value that the wanted type does "
                                "not have (0 like it not logged)")));
}

// What a client gets owns what it holds.
static_assert(std::is_same_v<Owned<std::string_view>, std::string>);
static_assert(std::is_same_v<Owned<const char*>, std::string>);
static_assert(std::is_same_v<Owned<BorrowedFd>, OwnedFd>);
static_assert(std::is_same_v<Owned<std::span<const double>>, std::vector<double>>);
static_assert(std::is_same_v<Owned<Borrow<std::string_view>>, std::string>);
static_assert(std::is_same_v<Owned<std::vector<std::string_view>>, std::vector<std::string>>);
static_assert(std::is_same_v<Owned<std::array<std::string_view, 2>>, std::array<std::string, 2>>);
static_assert(std::is_same_v<Owned<std::map<std::string_view, BorrowedFd>>, std::map<std::string, OwnedFd>>);
static_assert(std::is_same_v<Owned<std::unordered_map<std::string, std::span<const double>>>,
                             std::unordered_map<std::string, std::vector<double>>>);
static_assert(std::is_same_v<Owned<std::tuple<int, std::string_view>>, std::tuple<int, std::string>>);
static_assert(std::is_same_v<Owned<std::pair<int, std::string_view>>, std::pair<int, std::string>>);
static_assert(std::is_same_v<Owned<std::variant<int, std::string_view>>, std::variant<int, std::string>>);
static_assert(std::is_same_v<Owned<Results<int, std::string_view>>, Results<int, std::string>>);
static_assert(std::is_same_v<Owned<const int&>, int>);
static_assert(std::is_same_v<Owned<void>, void>);

}  // namespace
}  // namespace mwl::Typed
