#include <tern/typed/basic.h>
#include <tern/typed/codec.h>

#include <limits>

#include "round_trip.h"

using namespace mwl::Typed;
using tern::test::Body;
using tern::test::BusMessage;
using tern::test::ReadOne;
using tern::test::ReadValue;
using tern::test::Require;
using tern::test::RoundTrip;

namespace {

class Basic : public RoundTrip {
protected:
    /// The codes of which a T can be read.
    template <class T>
    std::string Accepted() {
        std::string accepted;
        for (const char* const type : {"y", "b", "n", "q", "i", "u", "x", "t", "d", "s", "o", "g", "h"}) {
            BusMessage message = mMessages.New();
            const auto add = [&](auto value) {
                Require(sd_bus_message_append_basic(message.get(), *type, value), type);
            };
            const std::uint64_t number = 0;
            switch (*type) {
                case 's':
                    add("text");
                    break;
                case 'o':
                    add("/path");
                    break;
                case 'g':
                    add("as");
                    break;
                default:
                    add(&number);  // a descriptor too: 0 is open
                    break;
            }
            tern::test::TestMessages::Seal(message);
            const ReadValue<T> read = ReadOne<T>(message);
            if (read.result > 0) {
                accepted += type;
            } else {
                EXPECT_EQ(read.result, -ENXIO) << type;
                EXPECT_EQ(read.Text(), "") << type;
            }
        }
        for (const char* const types : {"as", "v", "(u)", "a{sv}"}) {
            BusMessage message = mMessages.New();
            if (*types == 'v') {
                Require(sd_bus_message_append(message.get(), "v", "u", 1), types);
            } else if (*types == '(') {
                Require(sd_bus_message_append(message.get(), "(u)", 1), types);
            } else {
                Require(sd_bus_message_append(message.get(), types, 0), types);
            }
            tern::test::TestMessages::Seal(message);
            EXPECT_EQ(ReadOne<T>(message).result, -ENXIO) << types;
        }
        return accepted;
    }

    template <class T>
    void CheckLimits(const char* type) {
        for (const T value : {std::numeric_limits<T>::min(), T{0}, T{1}, std::numeric_limits<T>::max()}) {
            Check(value, type, value);
        }
        EXPECT_EQ(Accepted<T>(), type);
    }
};

TEST_F(Basic, NumbersAreWhatSdBusMakesOfThem) {
    CheckLimits<std::uint8_t>("y");
    CheckLimits<std::int16_t>("n");
    CheckLimits<std::uint16_t>("q");
    CheckLimits<std::int32_t>("i");
    CheckLimits<std::uint32_t>("u");
    CheckLimits<std::int64_t>("x");
    CheckLimits<std::uint64_t>("t");
    CheckLimits<long long>("x");
    CheckLimits<unsigned long long>("t");
    CheckLimits<long>(sizeof(long) == 8 ? "x" : "i");
    CheckLimits<double>("d");
    Check(-0.5, "d", -0.5);
}

TEST_F(Basic, BooleanIsOneOfTwo) {
    Check(true, "b", 1);
    Check(false, "b", 0);
    EXPECT_EQ(Accepted<bool>(), "b");
}

TEST_F(Basic, TextIsWhatSdBusMakesOfIt) {
    for (const char* const text :
         {"", "a", "text", "eight ch", "more than eight characters", "gr\u00fc\u00df", "\U0001f600"}) {
        Check(std::string(text), "s", text);
        Check(std::string_view(text), "s", text);
        EXPECT_EQ(Body(Written(text)), Body(mMessages.Make("s", text)));
    }
    EXPECT_EQ(Body(Written("literal")), Body(mMessages.Make("s", "literal")));
    EXPECT_EQ(SIGNATURE<const char(&)[8]>.View(), "s");
    EXPECT_EQ(Accepted<std::string>(), "s");
    EXPECT_EQ(Accepted<std::string_view>(), "s");
    EXPECT_EQ(Accepted<ObjectPath>(), "o");
    EXPECT_EQ(Accepted<Signature>(), "g");
    EXPECT_EQ(Accepted<BorrowedFd>(), "h");
    EXPECT_EQ(Accepted<OwnedFd>(), "h");
}

TEST_F(Basic, ViewEndsWhereItSays) {
    const std::string_view word = std::string_view("boost and more").substr(0, 5);
    EXPECT_EQ(Body(Written(word)), Body(mMessages.Make("s", "boost")));
    EXPECT_EQ(Body(Written(std::string_view())), Body(mMessages.Make("s", "")));
}

TEST_F(Basic, ViewPointsIntoTheMessage) {
    const BusMessage message = mMessages.Make("s", "text");
    const char* inMessage = nullptr;
    Require(sd_bus_message_read_basic(message.get(), 's', &inMessage), "read");
    Require(sd_bus_message_rewind(message.get(), 1), "rewind");
    EXPECT_EQ(ReadOne<std::string_view>(message).value.data(), inMessage);
}

TEST_F(Basic, NullTextIsRefused) {
    EXPECT_EQ(WriteResult(static_cast<const char*>(nullptr)), -EINVAL);
}

struct BadText {
    const char* name;
    std::string_view text;
};
using std::string_view_literals::operator""sv;
constexpr BadText BAD_TEXTS[] = {
    {"null character", "a\0b"sv},
    {"null character at the end", "text\0"sv},
    {"null character behind eight characters", "12345678\0"sv},
    {"null character among eight characters",
     "1234\0"
     "678"sv},
    {"continuation alone", "\x80"sv},
    {"continuation behind eight characters", "12345678\xbf"sv},
    {"overlong slash", "\xc0\xaf"sv},
    {"overlong of two bytes", "\xc1\xbf"sv},
    {"overlong of three bytes", "\xe0\x9f\xbf"sv},
    {"overlong of four bytes", "\xf0\x8f\xbf\xbf"sv},
    {"surrogate", "\xed\xa0\x80"sv},
    {"last surrogate", "\xed\xbf\xbf"sv},
    {"above Unicode", "\xf4\x90\x80\x80"sv},
    {"five bytes", "\xf8\x88\x80\x80\x80"sv},
    {"byte that never occurs", "\xff"sv},
    {"cut after one of two", "a\xc3"sv},
    {"cut after two of three", "\xe2\x82"sv},
    {"cut after three of four", "\xf0\x9f\x98"sv},
    {"wrong second byte", "\xc3(abc"sv},
    {"wrong last byte", "\xf0\x9f\x98("sv},
    {"no character U+FDD0", "\xef\xb7\x90"sv},
    {"no character U+FFFE", "\xef\xbf\xbe"sv},
    {"no character U+10FFFF", "\xf4\x8f\xbf\xbf"sv},
};

// Measured before: a message bus that gets such text ends the connection of its sender.
TEST_F(Basic, RefusesTextThatIsNotUtf8) {
    for (const BadText& bad : BAD_TEXTS) {
        SCOPED_TRACE(bad.name);
        EXPECT_EQ(WriteResult(bad.text), -EINVAL);
        EXPECT_EQ(WriteResult(std::string(bad.text)), -EINVAL);
        EXPECT_FALSE(IsText(bad.text));
        const std::string embedded = "before " + std::string(bad.text) + " behind";
        EXPECT_EQ(WriteResult(embedded), -EINVAL);
    }
}

TEST_F(Basic, RefusedTextLeavesNothingInTheMessage) {
    BusMessage message = mMessages.New();
    for (const BadText& bad : BAD_TEXTS) {
        EXPECT_EQ(AppendText(message.get(), 's', bad.text), -EINVAL);
        EXPECT_EQ(AppendText(message.get(), 'o', bad.text), -EINVAL);
        EXPECT_EQ(AppendText(message.get(), 'g', bad.text), -EINVAL);
    }
    tern::test::TestMessages::Seal(message);
    EXPECT_STREQ(sd_bus_message_get_signature(message.get(), 1), "");
}

TEST_F(Basic, AppendTextChecksPathsAndSignatures) {
    BusMessage message = mMessages.New();
    EXPECT_EQ(AppendText(message.get(), 'o', "no/path"), -EINVAL);
    EXPECT_EQ(AppendText(message.get(), 'g', "a"), -EINVAL);
    EXPECT_GE(AppendText(message.get(), 'o', std::string_view("/path/and").substr(0, 5)), 0);
    EXPECT_GE(AppendText(message.get(), 'g', "as"), 0);
    tern::test::TestMessages::Seal(message);
    EXPECT_EQ(ReadOne<ObjectPath>(message).value.GetText(), "/path");
    EXPECT_EQ(ReadOne<Signature>(message).value.GetText(), "as");
}

// sd-bus checks what it reads, so what it would refuse to append cannot be received by a peer that uses it
// either.
TEST_F(Basic, AgreesWithSdBusAboutEveryCharacter) {
    BusMessage message = mMessages.New();
    int differences = 0;
    for (std::uint32_t point = 1; point < 0x120000; ++point) {
        char text[5] = {};
        std::size_t size = 0;
        if (point < 0x80) {
            text[size++] = static_cast<char>(point);
        } else if (point < 0x800) {
            text[size++] = static_cast<char>(0xc0 | point >> 6);
            text[size++] = static_cast<char>(0x80 | (point & 0x3f));
        } else if (point < 0x10000) {
            text[size++] = static_cast<char>(0xe0 | point >> 12);
            text[size++] = static_cast<char>(0x80 | (point >> 6 & 0x3f));
            text[size++] = static_cast<char>(0x80 | (point & 0x3f));
        } else {
            text[size++] = static_cast<char>(0xf0 | point >> 18);
            text[size++] = static_cast<char>(0x80 | (point >> 12 & 0x3f));
            text[size++] = static_cast<char>(0x80 | (point >> 6 & 0x3f));
            text[size++] = static_cast<char>(0x80 | (point & 0x3f));
        }
        if (point % 200 == 0) {
            message = mMessages.New();  // a signature has at most 255 characters
        }
        const bool taken = sd_bus_message_append_basic(message.get(), 's', text) >= 0;
        if (taken != IsText({text, size}) && ++differences < 10) {
            ADD_FAILURE() << "code point " << std::hex << point;
        }
    }
    EXPECT_EQ(differences, 0);
}

TEST_F(Basic, AgreesWithSdBusAboutEveryPairOfBytes) {
    for (unsigned first = 0; first < 256; ++first) {
        BusMessage message = mMessages.New();
        for (unsigned second = 1; second < 256; ++second) {
            if (second % 200 == 0) {
                message = mMessages.New();
            }
            const char text[] = {'x', static_cast<char>(first == 0 ? 1 : first), static_cast<char>(second),
                                 'x', '\0'};
            const bool taken = sd_bus_message_append_basic(message.get(), 's', text) >= 0;
            ASSERT_EQ(taken, IsText({text, 4})) << first << " " << second;
        }
    }
}

TEST_F(Basic, ReadingAfterTheLastElementIsZero) {
    const BusMessage message = mMessages.Make("as", 1, "only");
    Require(sd_bus_message_enter_container(message.get(), 'a', "s"), "enter");
    EXPECT_GT(ReadOne<std::string>(message).result, 0);
    const ReadValue<std::string> read = ReadOne<std::string>(message);
    EXPECT_EQ(read.result, 0);
    EXPECT_EQ(read.value, "");
}

TEST_F(Basic, FailedReadingKeepsViewAndText) {
    const BusMessage message = mMessages.Make("u", 1);
    Fault fault;
    std::string text = "kept";
    EXPECT_EQ(Read(message.get(), text, fault), -ENXIO);
    EXPECT_EQ(text, "kept");
}

TEST(Borrows, TellsWhatPointsIntoTheMessage) {
    static_assert(BORROWS<std::string_view> && BORROWS<BorrowedFd> && BORROWS<std::span<const double>>);
    static_assert(!BORROWS<std::string> && !BORROWS<int> && !BORROWS<OwnedFd> && !BORROWS<Any>);
    static_assert(BORROWS<std::vector<std::string_view>> && !BORROWS<std::vector<std::string>>);
    static_assert(BORROWS<std::array<BorrowedFd, 2>> && BORROWS<std::map<int, std::string_view>>);
    static_assert(BORROWS<std::unordered_map<std::string_view, int>> &&
                  BORROWS<std::tuple<int, std::string_view>>);
    static_assert(BORROWS<std::pair<std::string_view, int>> && BORROWS<std::variant<int, BorrowedFd>>);
    static_assert(!BORROWS<Borrow<std::string_view>> && !BORROWS<std::vector<Borrow<std::string_view>>>);
}

}  // namespace
