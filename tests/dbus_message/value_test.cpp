#include <tern/dbus_message/value.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>

namespace mw::tern::DBusMessage {
namespace {

TEST(Value, EveryClassCarriesItsTag) {
    EXPECT_EQ(ValueUint8(1).GetType(), 0U);
    EXPECT_EQ(ValueBool(1).GetType(), 1U);
    EXPECT_EQ(ValueInt16(1).GetType(), 2U);
    EXPECT_EQ(ValueUint16(1).GetType(), 3U);
    EXPECT_EQ(ValueInt32(1).GetType(), 4U);
    EXPECT_EQ(ValueUint32(1).GetType(), 5U);
    EXPECT_EQ(ValueInt64(1).GetType(), 6U);
    EXPECT_EQ(ValueUint64(1).GetType(), 7U);
    EXPECT_EQ(ValueDouble(1).GetType(), 8U);
    EXPECT_EQ(ValueString("x").GetType(), 9U);
    EXPECT_EQ(ValueFD(1).GetType(), 10U);
    EXPECT_EQ(ValueISI().GetType(), 11U);
}

TEST(Value, EveryClassHoldsWhatItWasGivenToTheLimitsOfItsType) {
    EXPECT_EQ(ValueUint8(255).value, 255);
    EXPECT_EQ(ValueBool(-7).value, -7);
    EXPECT_EQ(ValueInt16(-32768).value, -32768);
    EXPECT_EQ(ValueUint16(65535).value, 65535);
    EXPECT_EQ(ValueInt32(std::numeric_limits<int>::min()).value, std::numeric_limits<int>::min());
    EXPECT_EQ(ValueUint32(4294967295U).value, 4294967295U);
    EXPECT_EQ(ValueInt64(std::numeric_limits<long long>::min()).value, std::numeric_limits<long long>::min());
    EXPECT_EQ(ValueUint64(18446744073709551615ULL).value, 18446744073709551615ULL);
    EXPECT_EQ(ValueDouble(-0.125).value, -0.125);
    EXPECT_EQ(ValueString("text").value, "text");
    EXPECT_EQ(ValueFD(4294967295U).value, 4294967295U);
}

TEST(Value, HeldTypesAreThoseOfTheAccessors) {
    EXPECT_TRUE((std::is_same_v<decltype(ValueUint8::value), unsigned char>));
    EXPECT_TRUE((std::is_same_v<decltype(ValueBool::value), int>));
    EXPECT_TRUE((std::is_same_v<decltype(ValueInt16::value), short>));
    EXPECT_TRUE((std::is_same_v<decltype(ValueUint16::value), unsigned short>));
    EXPECT_TRUE((std::is_same_v<decltype(ValueInt32::value), int>));
    EXPECT_TRUE((std::is_same_v<decltype(ValueUint32::value), unsigned int>));
    EXPECT_TRUE((std::is_same_v<decltype(ValueInt64::value), long long>));
    EXPECT_TRUE((std::is_same_v<decltype(ValueUint64::value), unsigned long long>));
    EXPECT_TRUE((std::is_same_v<decltype(ValueDouble::value), double>));
    EXPECT_TRUE((std::is_same_v<decltype(ValueString::value), std::string>));
    EXPECT_TRUE((std::is_same_v<decltype(ValueFD::value), unsigned int>));
    EXPECT_EQ(sizeof(ValueType), 4U);
}

TEST(Value, TagComesFirstThenTheValue) {
    // Behind the pointer to the virtual table; the value uses the room that the tag leaves.
    const ValueInt32 value(5);
    const auto* const bytes = reinterpret_cast<const char*>(&value);
    EXPECT_EQ(reinterpret_cast<const char*>(&value.value) - bytes,
              static_cast<std::ptrdiff_t>(sizeof(void*) + sizeof(ValueType)));
}

TEST(Value, BaseDestroysTheConcreteClass) {
    // A text too long for the string's own room: the leak checker sees a destructor that was not virtual.
    const std::string longText(1000, 'x');
    EXPECT_TRUE(std::has_virtual_destructor_v<Value>);
    const std::unique_ptr<Value> string = std::make_unique<ValueString>(longText);
    const std::unique_ptr<Value> structure = std::make_unique<ValueISI>(1, longText, 2);
    EXPECT_EQ(string->GetType(), VALUE_TYPE_STRING);
    EXPECT_EQ(structure->GetType(), VALUE_TYPE_ISI);
}

TEST(ValueISI, DefaultIsZeroEmptyZero) {
    const ValueISI value;
    EXPECT_EQ(value.first, 0);
    EXPECT_EQ(value.text, "");
    EXPECT_EQ(value.second, 0);
}

TEST(ValueISI, CopiesAndAssignsThreeFields) {
    const ValueISI source(-1, "between", 2);
    const ValueISI copy(source);
    EXPECT_EQ(copy.first, -1);
    EXPECT_EQ(copy.text, "between");
    EXPECT_EQ(copy.second, 2);

    ValueISI target(7, "old", 8);
    target = source;
    EXPECT_EQ(target.first, -1);
    EXPECT_EQ(target.text, "between");
    EXPECT_EQ(target.second, 2);
    EXPECT_EQ(target.GetType(), VALUE_TYPE_ISI);
}

TEST(ValueISI, AssigningToItselfChangesNothing) {
    ValueISI value(3, "same", 4);
    const ValueISI& alias = value;
    value = alias;
    EXPECT_EQ(value.first, 3);
    EXPECT_EQ(value.text, "same");
    EXPECT_EQ(value.second, 4);
}

}  // namespace
}  // namespace mw::tern::DBusMessage
