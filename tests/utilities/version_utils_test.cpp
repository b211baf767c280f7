#include <gtest/gtest.h>
#include <tern/utilities/version_utils.h>

#include <array>
#include <climits>

using mwl::StatusCode;
using mwl::Utilities::VersionUtils;
using Version = mwl::Utilities::VersionUtils::VersionMajorMinorPatch;
using Result = mwl::Utilities::VersionUtils::ComparisonResult;

namespace {

constexpr auto MAJOR_MINOR_PATCH = VersionUtils::VersionType::MajorMinorPatch;

struct Accepted {
    const char* text;
    Version version;
};

const Accepted ACCEPTED[] = {
    {"10.0.1", {10, 0, 1}},     {"0.0.0", {0, 0, 0}},
    {"01.002.0003", {1, 2, 3}}, {"2147483647.-2147483648.+7", {INT_MAX, INT_MIN, 7}},
    {" 1. 2.\t3", {1, 2, 3}},   {"-1.-2.-3", {-1, -2, -3}},
    {"1.2.3-rc1", {1, 2, 3}},   {"1x.2y.3z", {1, 2, 3}},
    {"1 .2 .3 ", {1, 2, 3}},
};

const char* const REFUSED[] = {"",
                               ".",
                               "..",
                               "1",
                               "1.2",
                               "1.2.3.4",
                               "1.2.3.",
                               "1..3",
                               ".2.3",
                               "1.2.",
                               "1.x.3",
                               "x.1.3",
                               "1.2.x",
                               "1.2.-",
                               "1.2. ",
                               "1,2,3",
                               "v1.2.3",
                               "1.2.2147483648",
                               "-2147483649.2.3",
                               "1.99999999999999999999.3"};

struct Comparison {
    const char* first;
    const char* second;
    Result result;
};

const Comparison COMPARISONS[] = {
    {"1.2.3", "1.2.3", Result::Equal},    {"1.2.3", "01.2.3-rc1", Result::Equal},
    {"1.10.0", "1.9.9", Result::Greater}, {"2.0.0", "1.9.9", Result::Greater},
    {"1.2.3", "1.2.4", Result::Lower},    {"1.2.10", "1.2.9", Result::Greater},
    {"-1.0.0", "1.0.0", Result::Lower},   {"1.-1.5", "1.0.0", Result::Lower},
    {"0.0.0", "0.0.1", Result::Lower},
};

}  // namespace

TEST(VersionUtils, ValuesAreFixed) {
    EXPECT_EQ(static_cast<int>(MAJOR_MINOR_PATCH), 0);
    EXPECT_EQ(static_cast<int>(Result::Equal), 0);
    EXPECT_EQ(static_cast<int>(Result::Lower), 1);
    EXPECT_EQ(static_cast<int>(Result::Greater), 2);
    EXPECT_EQ(sizeof(Version), 3 * sizeof(std::int32_t));
    EXPECT_LT(offsetof(Version, major), offsetof(Version, minor));
    EXPECT_LT(offsetof(Version, minor), offsetof(Version, patch));
}

TEST(VersionUtils, ThreePartsThatBeginWithNumbersAreAVersion) {
    for (const Accepted& row : ACCEPTED) {
        Version version;
        EXPECT_EQ(Version::Parse(row.text, version), StatusCode::Ok) << row.text;
        EXPECT_EQ(version.major, row.version.major) << row.text;
        EXPECT_EQ(version.minor, row.version.minor) << row.text;
        EXPECT_EQ(version.patch, row.version.patch) << row.text;
    }
}

TEST(VersionUtils, AnythingElseIsRefusedAndLeavesTheVersion) {
    for (const char* text : REFUSED) {
        Version version{7, 8, 9};
        EXPECT_EQ(Version::Parse(text, version), StatusCode::InvalidArgument) << text;
        EXPECT_TRUE((version == Version{7, 8, 9})) << text;
    }
}

TEST(VersionUtils, VersionsAreOrderedByMajorThenMinorThenPatch) {
    const Version ordered[] = {{INT_MIN, 9, 9}, {-1, 0, 0}, {0, -1, 9}, {0, 0, 0},
                               {0, 0, 1},       {0, 1, 0},  {1, 0, 0},  {1, 0, INT_MAX}};
    for (std::size_t i = 0; i < std::size(ordered); ++i) {
        for (std::size_t j = 0; j < std::size(ordered); ++j) {
            EXPECT_EQ(ordered[i] < ordered[j], i < j) << i << ", " << j;
            EXPECT_EQ(ordered[i] == ordered[j], i == j) << i << ", " << j;
        }
    }
}

TEST(VersionUtils, TextsAreComparedByTheirNumbers) {
    for (const Comparison& row : COMPARISONS) {
        Result result{};
        EXPECT_EQ(VersionUtils::Compare(row.first, row.second, MAJOR_MINOR_PATCH, result), StatusCode::Ok);
        EXPECT_EQ(result, row.result) << row.first << " with " << row.second;
        const Result reversed = row.result == Result::Equal   ? Result::Equal
                                : row.result == Result::Lower ? Result::Greater
                                                              : Result::Lower;
        EXPECT_EQ(VersionUtils::Compare(row.second, row.first, MAJOR_MINOR_PATCH, result), StatusCode::Ok);
        EXPECT_EQ(result, reversed) << row.second << " with " << row.first;
    }
}

TEST(VersionUtils, AComparisonOfWhatIsNoVersionLeavesTheResult) {
    const std::pair<const char*, const char*> rows[] = {{"1.2", "1.2.3"}, {"1.2.3", "x"}, {"", ""}};
    for (const auto& [first, second] : rows) {
        Result result = Result::Greater;
        EXPECT_EQ(VersionUtils::Compare(first, second, MAJOR_MINOR_PATCH, result),
                  StatusCode::InvalidArgument);
        EXPECT_EQ(result, Result::Greater);
    }
}

TEST(VersionUtils, AnotherTypeIsRefused) {
    for (const int type : {1, -1}) {
        Result result = Result::Greater;
        EXPECT_EQ(
            VersionUtils::Compare("1.2.3", "1.2.3", static_cast<VersionUtils::VersionType>(type), result),
            StatusCode::InvalidArgument);
        EXPECT_EQ(result, Result::Greater);
    }
}
