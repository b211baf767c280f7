#include <tern/typed/codec.h>
#include <tern/typed/structures.h>

#include "round_trip.h"

using namespace mwl::Typed;
using tern::test::BusMessage;
using tern::test::ReadOne;
using tern::test::ReadValue;
using tern::test::Require;
using tern::test::RoundTrip;

namespace {

class Structures : public RoundTrip {};

struct One {
    std::string text;
    bool operator==(const One&) const = default;
};
struct Point {
    int x = 0;
    double y = 0;
    bool operator==(const Point&) const = default;
};
struct Line {
    Point from;
    Point to;
    std::vector<std::string> names;
    std::array<std::uint8_t, 2> bytes{};
    std::variant<int, std::string> label;
    std::variant<int> always;
    Any extra;
    std::map<std::string, Point> marks;
    ObjectPath path;
    bool operator==(const Line&) const = default;
};
struct Sixteen {
    int a, b, c, d, e, f, g, h, i, j, k, l, m, n, o, p;
    bool operator==(const Sixteen&) const = default;
};

TEST_F(Structures, TuplesAndPairsAreStructures) {
    Check(std::tuple<int>{5}, "(i)", 5);
    Check(std::tuple<int, std::string, bool>{5, "text", true}, "(isb)", 5, "text", 1);
    Check(std::pair<std::string, double>{"text", 0.5}, "(sd)", "text", 0.5);
    Check(std::tuple<std::tuple<std::tuple<int>>>{5}, "(((i)))", 5);
}

TEST_F(Structures, AggregatesNeedNoDescription) {
    Check(One{"text"}, "(s)", "text");
    Check(Point{1, 2.5}, "(id)", 1, 2.5);
    Check(Sixteen{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}, "(iiiiiiiiiiiiiiii)", 1, 2, 3, 4, 5,
          6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16);
}

TEST_F(Structures, NestInEverything) {
    const Line line{{1, 2},        {3, 4},           {"a", "b"},         {5, 6}, std::string("label"), 8,
                    Any::From(7U), {{"m", {9, 10}}}, ObjectPath("/path")};
    Check(line, "((id)(id)asayvvva{s(id)}o)", 1, 2.0, 3, 4.0, 2, "a", "b", 2, 5, 6, "s", "label", "i", 8, "u",
          7, 1, "m", 9, 10.0, "/path");
    Check(std::vector<Point>{{1, 2}, {3, 4}}, "a(id)", 2, 1, 2.0, 3, 4.0);
    Check(std::map<int, Point>{{1, {2, 3}}}, "a{i(id)}", 1, 1, 2, 3.0);
    Check(std::vector<std::tuple<std::vector<std::tuple<int>>>>{{{{1}, {2}}}, {{}}}, "a(a(i))", 2, 2, 1, 2,
          0);
}

// Every number of fields has a branch of its own.
#define TERN_FIELDS(n, ...)                                \
    struct Fields##n {                                     \
        std::uint8_t __VA_ARGS__;                          \
        bool operator==(const Fields##n&) const = default; \
    }
TERN_FIELDS(2, a, b);
TERN_FIELDS(3, a, b, c);
TERN_FIELDS(4, a, b, c, d);
TERN_FIELDS(5, a, b, c, d, e);
TERN_FIELDS(6, a, b, c, d, e, f);
TERN_FIELDS(7, a, b, c, d, e, f, g);
TERN_FIELDS(8, a, b, c, d, e, f, g, h);
TERN_FIELDS(9, a, b, c, d, e, f, g, h, i);
TERN_FIELDS(10, a, b, c, d, e, f, g, h, i, j);
TERN_FIELDS(11, a, b, c, d, e, f, g, h, i, j, k);
TERN_FIELDS(12, a, b, c, d, e, f, g, h, i, j, k, l);
TERN_FIELDS(13, a, b, c, d, e, f, g, h, i, j, k, l, m);
TERN_FIELDS(14, a, b, c, d, e, f, g, h, i, j, k, l, m, n);
TERN_FIELDS(15, a, b, c, d, e, f, g, h, i, j, k, l, m, n, o);
#undef TERN_FIELDS

TEST_F(Structures, HaveOneToSixteenFields) {
    Check(Fields2{1, 2}, "(yy)", 1, 2);
    Check(Fields3{1, 2, 3}, "(yyy)", 1, 2, 3);
    Check(Fields4{1, 2, 3, 4}, "(yyyy)", 1, 2, 3, 4);
    Check(Fields5{1, 2, 3, 4, 5}, "(yyyyy)", 1, 2, 3, 4, 5);
    Check(Fields6{1, 2, 3, 4, 5, 6}, "(yyyyyy)", 1, 2, 3, 4, 5, 6);
    Check(Fields7{1, 2, 3, 4, 5, 6, 7}, "(yyyyyyy)", 1, 2, 3, 4, 5, 6, 7);
    Check(Fields8{1, 2, 3, 4, 5, 6, 7, 8}, "(yyyyyyyy)", 1, 2, 3, 4, 5, 6, 7, 8);
    Check(Fields9{1, 2, 3, 4, 5, 6, 7, 8, 9}, "(yyyyyyyyy)", 1, 2, 3, 4, 5, 6, 7, 8, 9);
    Check(Fields10{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, "(yyyyyyyyyy)", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10);
    Check(Fields11{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}, "(yyyyyyyyyyy)", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11);
    Check(Fields12{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}, "(yyyyyyyyyyyy)", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10,
          11, 12);
    Check(Fields13{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}, "(yyyyyyyyyyyyy)", 1, 2, 3, 4, 5, 6, 7, 8, 9,
          10, 11, 12, 13);
    Check(Fields14{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14}, "(yyyyyyyyyyyyyy)", 1, 2, 3, 4, 5, 6, 7, 8,
          9, 10, 11, 12, 13, 14);
    Check(Fields15{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}, "(yyyyyyyyyyyyyyy)", 1, 2, 3, 4, 5, 6,
          7, 8, 9, 10, 11, 12, 13, 14, 15);
}

TEST_F(Structures, OfOtherFieldsAreRefused) {
    EXPECT_EQ(ReadOne<Point>(mMessages.Make("(ii)", 1, 2)).result, -ENXIO);
    EXPECT_EQ(ReadOne<Point>(mMessages.Make("(idi)", 1, 2.0, 3)).result, -ENXIO);
    EXPECT_EQ(ReadOne<Point>(mMessages.Make("(i)", 1)).result, -ENXIO);
    EXPECT_EQ(ReadOne<Point>(mMessages.Make("id", 1, 2.0)).result, -ENXIO);
    EXPECT_EQ(ReadOne<std::tuple<int>>(mMessages.Make("i", 1)).result, -ENXIO);
}

TEST_F(Structures, AreMovableOnlyWithDescriptors) {
    struct WithFd {
        OwnedFd fd;
        int number = 0;
    };
    static_assert(SIGNATURE<WithFd>.View() == "(hi)");
    const ReadValue<WithFd> read = ReadOne<WithFd>(mMessages.Make("(hi)", 0, 5));
    EXPECT_GT(read.result, 0);
    EXPECT_TRUE(read.value.fd);
    EXPECT_EQ(read.value.number, 5);
}

TEST_F(Structures, FailWithTheirFields) {
    struct Inner {
        std::array<int, 2> pair;
        int last;
    };
    const ReadValue<std::vector<Inner>> read =
        ReadOne<std::vector<Inner>>(mMessages.Make("a(aii)", 2, 2, 1, 2, 3, 1, 4, 5));
    EXPECT_EQ(read.result, -EINVAL);
    EXPECT_EQ(read.Text(), "1 element where 2 are wanted");
    EXPECT_EQ(read.Where(), "[1]");
    EXPECT_EQ(WriteResult(One{"\xff"}), -EINVAL);
}

TEST(Borrows, LooksIntoAggregates) {
    struct View {
        int number;
        std::string_view text;
    };
    static_assert(BORROWS<View> && BORROWS<std::vector<View>> && !BORROWS<Point> && !BORROWS<Line>);
}

}  // namespace
