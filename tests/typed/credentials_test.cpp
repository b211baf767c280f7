#include "typed/credentials.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace mwl::Typed {
namespace {

std::string NameOf(std::size_t number) {
    return ":1." + std::to_string(number);
}

TEST(Credentials, KeepsWhatWasFoundOut) {
    int kept = 0;
    Credentials credentials(nullptr, [&] { ++kept; });
    EXPECT_TRUE(credentials.IsEmpty());
    EXPECT_EQ(credentials.Find(":1.1"), nullptr);
    const Identity* const added = credentials.Keep(":1.1", {1000, 42});
    ASSERT_NE(added, nullptr);
    EXPECT_EQ(added->uid, 1000U);
    EXPECT_EQ(credentials.Find(":1.1"), added);
    EXPECT_EQ(credentials.Keep(":1.1", {0, 1})->uid, 1000U) << "it never changes";
    EXPECT_EQ(kept, 1);
    EXPECT_EQ(credentials.GetSize(), 1U);
    std::set<std::string> names{":1.9"};
    credentials.AddSenders(names);
    EXPECT_EQ(names, (std::set<std::string>{":1.1", ":1.9"}));
    credentials.Forget(":1.2");
    credentials.Forget(":1.1");
    EXPECT_EQ(credentials.Find(":1.1"), nullptr);
    EXPECT_TRUE(credentials.IsEmpty());
}

TEST(Credentials, OneMoreThanTheLimitTakesThePlaceOfTheOneLeastLookedFor) {
    Credentials credentials(nullptr, [] {});
    for (std::size_t i = 0; i < Credentials::LIMIT; ++i) {
        credentials.Keep(NameOf(i), {static_cast<uid_t>(i), std::nullopt});
    }
    EXPECT_EQ(credentials.GetSize(), Credentials::LIMIT);
    EXPECT_NE(credentials.Find(NameOf(0)), nullptr);  // looked for: the next one is older now
    credentials.Keep("one more", {7, std::nullopt});
    EXPECT_EQ(credentials.GetSize(), Credentials::LIMIT);
    EXPECT_EQ(credentials.Find(NameOf(1)), nullptr);
    EXPECT_NE(credentials.Find(NameOf(0)), nullptr);
    for (std::size_t i = 2; i < Credentials::LIMIT; ++i) {
        const Identity* const known = credentials.Find(NameOf(i));
        ASSERT_NE(known, nullptr);
        EXPECT_EQ(known->uid, i);
    }
}

TEST(Credentials, AreThoseOfOneConnectionOfTheThread) {
    EXPECT_EQ(Credentials::Of(nullptr), nullptr);
    {
        const Credentials credentials(nullptr, [] {});
        EXPECT_EQ(Credentials::Of(nullptr), &credentials);
    }
    EXPECT_EQ(Credentials::Of(nullptr), nullptr);
}

}  // namespace
}  // namespace mwl::Typed
