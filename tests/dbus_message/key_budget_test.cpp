#include "dbus_message/key_budget.h"

#include <gtest/gtest.h>

namespace mw::tern::DBusMessage {
namespace {

TEST(KeyBudget, GivesItsLimitAndNotOneByteMore) {
    KeyBudget budget;
    EXPECT_EQ(KeyBudget::LIMIT, 67108864U);
    EXPECT_FALSE(budget.Take(KeyBudget::LIMIT + 1));
    EXPECT_TRUE(budget.Take(KeyBudget::LIMIT - 1));
    EXPECT_FALSE(budget.Take(2));
    EXPECT_TRUE(budget.Take(1));
    EXPECT_TRUE(budget.Take(0));
    EXPECT_FALSE(budget.Take(1));
    EXPECT_FALSE(budget.Take(static_cast<std::size_t>(-1)));
}

}  // namespace
}  // namespace mw::tern::DBusMessage
