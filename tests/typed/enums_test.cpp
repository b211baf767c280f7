#include <tern/typed/codec.h>
#include <tern/typed/enums.h>

#include "round_trip.h"

namespace heating {

enum class Mode : std::uint8_t { Off = 0, On = 1, Boost = 7 };
constexpr auto DBusEnum(Mode) {
    return std::array{Mode::Off, Mode::On, Mode::Boost};
}

enum class Sign : std::int64_t { Minus = -1, Plus = 1 };
constexpr auto DBusEnum(Sign) {
    return std::array{Sign::Minus, Sign::Plus};
}

enum Old { OLD_A = 3, OLD_B };  // not scoped, its underlying type is the compiler's
constexpr auto DBusEnum(Old) {
    return std::array{OLD_A, OLD_B};
}

enum class Speed { Slow, Fast, Unnamed };
constexpr auto DBusEnum(Speed) {
    return std::array{mwl::Typed::EnumText{Speed::Slow, "slow"}, mwl::Typed::EnumText{Speed::Fast, "fast"}};
}

enum class Switch : bool { Open, Closed };
constexpr auto DBusEnum(Switch) {
    return std::array{Switch::Open, Switch::Closed};
}

}  // namespace heating

using namespace mwl::Typed;
using heating::Mode;
using heating::Sign;
using heating::Speed;
using tern::test::ReadOne;
using tern::test::ReadValue;
using tern::test::RoundTrip;

namespace {

class Enums : public RoundTrip {};

TEST_F(Enums, AreTheirIntegers) {
    Check(Mode::Off, "y", 0);
    Check(Mode::Boost, "y", 7);
    Check(Sign::Minus, "x", std::int64_t{-1});
    Check(heating::OLD_B, "u", 4);
    Check(heating::Switch::Closed, "b", 1);
}

TEST_F(Enums, AreTheirText) {
    Check(Speed::Slow, "s", "slow");
    Check(Speed::Fast, "s", "fast");
}

TEST_F(Enums, AreElementsAndKeys) {
    Check(std::vector<Mode>{Mode::On, Mode::Boost}, "ay", 2, 1, 7);
    Check(std::vector<Speed>{Speed::Fast}, "as", 1, "fast");
    Check(std::map<Speed, Mode>{{Speed::Slow, Mode::On}}, "a{sy}", 1, "slow", 1);
    Check(std::variant<int, Speed>(Speed::Fast), "v", "s", "fast");
}

TEST_F(Enums, ValuesOutsideAreRefusedWhenRead) {
    const auto text = [](const auto& read) {
        EXPECT_EQ(read.result, -EINVAL);
        return read.Text();
    };
    EXPECT_EQ(text(ReadOne<Mode>(mMessages.Make("y", 2))), "2 is not one of its values");
    EXPECT_EQ(text(ReadOne<Sign>(mMessages.Make("x", std::int64_t{-2}))), "-2 is not one of its values");
    EXPECT_EQ(text(ReadOne<Speed>(mMessages.Make("s", "warp"))), "'warp' is not one of its values");
    EXPECT_EQ(text(ReadOne<Speed>(mMessages.Make("s", ""))), "'' is not one of its values");
    EXPECT_EQ(text(ReadOne<Speed>(mMessages.Make("s", "Fast"))), "'Fast' is not one of its values");
    const ReadValue<std::vector<Mode>> modes = ReadOne<std::vector<Mode>>(mMessages.Make("ay", 3, 0, 1, 9));
    EXPECT_EQ(text(modes), "9 is not one of its values");
    EXPECT_EQ(modes.Where(), "[2]");
}

TEST_F(Enums, ValuesOutsideAreRefusedWhenSent) {
    EXPECT_EQ(WriteResult(static_cast<Mode>(2)), -EINVAL);
    EXPECT_EQ(WriteResult(Speed::Unnamed), -EINVAL);
    EXPECT_EQ(WriteResult(std::vector<Mode>{Mode::On, static_cast<Mode>(9)}), -EINVAL);
}

TEST_F(Enums, OfAnotherTypeAreRefused) {
    EXPECT_EQ(ReadOne<Mode>(mMessages.Make("u", 1)).result, -ENXIO);
    EXPECT_EQ(ReadOne<Speed>(mMessages.Make("i", 1)).result, -ENXIO);
}

}  // namespace
