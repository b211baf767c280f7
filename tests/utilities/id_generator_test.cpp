#include <gtest/gtest.h>
#include <tern/utilities/id_generator.h>

#include <cstdint>
#include <ctime>

#include "support/interpose.h"

using mwl::Utilities::IdGenerator;

TERN_INTERPOSE_TIME(time_t, time, __time64, (time_t * seconds), (seconds))

namespace {

class IdGeneratorAt : public testing::Test {
protected:
    void SetTime(time_t seconds) { fault_time.Fail(seconds, 0, 1000); }

    const tern::test::FaultScope<time_t(time_t*)> scope{fault_time};
};

}  // namespace

// The published values of the 32-bit hash; a NUL byte ends the seed before the time.
TEST_F(IdGeneratorAt, HashesSeedAndTimeWithFnv1a) {
    SetTime(1);
    EXPECT_EQ(IdGenerator::Get(""), std::to_string(0x340CA71CU));
    EXPECT_EQ(IdGenerator::Get(std::string("a\0", 2)), std::to_string(0xE40C292CU));
    EXPECT_EQ(IdGenerator::Get(std::string("foobar\0", 7)), std::to_string(0xBF9CF968U));
    EXPECT_EQ(IdGenerator::Get(std::string("\0", 1)), std::to_string(0x811C9DC5U));
}

TEST_F(IdGeneratorAt, TheTimeIsWrittenBehindTheSeed) {
    SetTime(34);
    const std::string id = IdGenerator::Get("12");
    SetTime(234);
    EXPECT_EQ(IdGenerator::Get("1"), id);
    SetTime(1234);
    EXPECT_EQ(IdGenerator::Get(""), id);
    SetTime(-7);
    const std::string negative = IdGenerator::Get("");
    SetTime(7);
    EXPECT_EQ(IdGenerator::Get("-"), negative);
}

TEST_F(IdGeneratorAt, TimesBeyond2038CountWhole) {
    SetTime(time_t{1} << 40);
    const std::string late = IdGenerator::Get("");
    SetTime(6);
    EXPECT_EQ(IdGenerator::Get("109951162777"), late);
}

TEST_F(IdGeneratorAt, BytesAbove127CountUnsigned) {
    SetTime(0);
    // (offset basis ^ 0xFF) * prime, ended by the NUL byte.
    EXPECT_EQ(IdGenerator::Get(std::string("\xff\0", 2)),
              std::to_string(static_cast<std::uint32_t>((0x811C9DC5ULL ^ 0xFFULL) * 0x01000193ULL)));
}

TEST_F(IdGeneratorAt, OneSeedGivesOneIdentifierASecond) {
    SetTime(1700000000);
    const std::string id = IdGenerator::Get("seed");
    EXPECT_EQ(IdGenerator::Get("seed"), id);
    EXPECT_NE(IdGenerator::Get("seed2"), id);
    SetTime(1700000001);
    EXPECT_NE(IdGenerator::Get("seed"), id);
}

TEST(IdGenerator, IdentifiersAreOneToTenDigits) {
    for (int number = 0; number < 1000; ++number) {
        const std::string id = IdGenerator::Get(std::to_string(number));
        EXPECT_GE(id.size(), 1U);
        EXPECT_LE(id.size(), 10U);
        EXPECT_EQ(id.find_first_not_of("0123456789"), std::string::npos) << id;
    }
}
