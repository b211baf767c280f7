#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/utilities/container_operations.h>

using mwl::StatusCode;
using mwl::Utilities::ContainerOperations;
using testing::ElementsAre;
using testing::IsEmpty;

using Set = std::set<std::string>;

TEST(ContainerOperations, AMappedValueIsFound) {
    std::string value = "untouched";
    EXPECT_EQ(ContainerOperations::FindValueByKeyInMap({{"key", "value"}, {"other", "x"}}, "key", value),
              StatusCode::Ok);
    EXPECT_EQ(value, "value");
    EXPECT_EQ(ContainerOperations::FindValueByKeyInMap({{"", ""}}, "", value), StatusCode::Ok);
    EXPECT_EQ(value, "");
}

TEST(ContainerOperations, AnAbsentKeyLeavesTheValue) {
    std::string value = "untouched";
    EXPECT_EQ(ContainerOperations::FindValueByKeyInMap({{"key", "value"}}, "Key", value),
              StatusCode::NotFound);
    EXPECT_EQ(ContainerOperations::FindValueByKeyInMap({}, "key", value), StatusCode::NotFound);
    EXPECT_EQ(value, "untouched");
}

TEST(ContainerOperations, CommonItemsOfSetsAreInBoth) {
    Set common;
    ContainerOperations::ItemsCommonInSet({"a", "b", "c"}, {"b", "c", "d"}, common);
    EXPECT_THAT(common, ElementsAre("b", "c"));
    common.clear();
    ContainerOperations::ItemsCommonInSet({"a"}, {}, common);
    ContainerOperations::ItemsCommonInSet({}, {"a"}, common);
    ContainerOperations::ItemsCommonInSet({"a"}, {"A"}, common);
    EXPECT_THAT(common, IsEmpty());
}

TEST(ContainerOperations, RemovedItemsOfSetsAreMissingFromTheSecond) {
    Set removed;
    ContainerOperations::ItemsRemovedInSet({"a", "b", "c"}, {"b", "d"}, removed);
    EXPECT_THAT(removed, ElementsAre("a", "c"));
    removed.clear();
    ContainerOperations::ItemsRemovedInSet({"a"}, {"a", "b"}, removed);
    ContainerOperations::ItemsRemovedInSet({}, {"a"}, removed);
    EXPECT_THAT(removed, IsEmpty());
    ContainerOperations::ItemsRemovedInSet({"a"}, {}, removed);
    EXPECT_THAT(removed, ElementsAre("a"));
}

TEST(ContainerOperations, OrderAndRepetitionInVectorsHaveNoSay) {
    Set common;
    Set removed;
    ContainerOperations::ItemsCommonInVector({"c", "a", "c"}, {"b", "c", "c", "a"}, common);
    EXPECT_THAT(common, ElementsAre("a", "c"));
    ContainerOperations::ItemsRemovedInVector({"c", "a", "c", "b"}, {"b"}, removed);
    EXPECT_THAT(removed, ElementsAre("a", "c"));
    removed.clear();
    ContainerOperations::ItemsRemovedInVector({"a", "a"}, {"a"}, removed);
    EXPECT_THAT(removed, IsEmpty());
}

TEST(ContainerOperations, EarlierContentOfTheResultStays) {
    Set result = {"earlier"};
    ContainerOperations::ItemsCommonInSet({"a"}, {"a"}, result);
    ContainerOperations::ItemsRemovedInSet({"b"}, {}, result);
    ContainerOperations::ItemsCommonInVector({"z"}, {"z"}, result);
    ContainerOperations::ItemsRemovedInVector({"y"}, {}, result);
    EXPECT_THAT(result, ElementsAre("a", "b", "earlier", "y", "z"));
}
