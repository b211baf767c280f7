#include <tern/dbus_message/values_list.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <type_traits>

#include "support/allocations.h"
#include "support/log_capture.h"

namespace mw::tern::DBusMessage {
namespace {

using ::tern::test::AllocationCount;
using ::tern::test::LogCapture;
using ::tern::test::Trace;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// What a test needs to know of one of the twelve types.
template <typename AddedType, typename OutType>
struct TypeRow {
    const char* getterName;
    void (ValuesList::*add)(const std::string&, AddedType);
    StatusCode (ValuesList::*get)(const std::string&, OutType&) const;
    OutType stored;
    OutType other;
};

bool operator==(const ValueISI& a, const ValueISI& b) {
    return a.first == b.first && a.text == b.text && a.second == b.second;
}

/// Calls `check` with the row of each type.
template <typename Check>
void ForEachType(Check check) {
    check(TypeRow<unsigned char, unsigned char>{"GetUint8", &ValuesList::AddValueUint8, &ValuesList::GetUint8,
                                                200, 7});
    check(TypeRow<int, int>{"GetBool", &ValuesList::AddValueBool, &ValuesList::GetBool, 1, 0});
    check(TypeRow<short, short>{"GetInt16", &ValuesList::AddValueInt16, &ValuesList::GetInt16, -300, 7});
    check(TypeRow<unsigned short, unsigned short>{"GetUint16", &ValuesList::AddValueUint16,
                                                  &ValuesList::GetUint16, 60000, 7});
    check(TypeRow<int, int>{"GetInt32", &ValuesList::AddValueInt32, &ValuesList::GetInt32, -70000, 7});
    check(TypeRow<unsigned int, unsigned int>{"GetUint32", &ValuesList::AddValueUint32,
                                              &ValuesList::GetUint32, 4000000000U, 7});
    check(TypeRow<long long, long long>{"GetInt64", &ValuesList::AddValueInt64, &ValuesList::GetInt64,
                                        -5000000000LL, 7});
    check(TypeRow<unsigned long long, unsigned long long>{
        "GetUint64", &ValuesList::AddValueUint64, &ValuesList::GetUint64, 18000000000000000000ULL, 7});
    check(TypeRow<double, double>{"GetDouble", &ValuesList::AddValueDouble, &ValuesList::GetDouble, 0.25, 7});
    check(TypeRow<const std::string&, std::string>{"GetString", &ValuesList::AddValueString,
                                                   &ValuesList::GetString, "stored", "other"});
    check(TypeRow<unsigned int, unsigned int>{"GetFD", &ValuesList::AddValueFD, &ValuesList::GetFD, 11, 7});
    check(TypeRow<const ValueISI&, ValueISI>{"GetISI", &ValuesList::AddValueISI, &ValuesList::GetISI,
                                             ValueISI(-1, "stored", 2), ValueISI(5, "other", 6)});
}

/// One entry of each type, under the name of its getter.
void AddOneOfEach(ValuesList& list) {
    ForEachType([&](const auto& row) { (list.*row.add)(row.getterName, row.stored); });
}

TEST(ValuesList, EachGetterReturnsWhatItsAdderStored) {
    const LogCapture log;
    ForEachType([&](const auto& row) {
        SCOPED_TRACE(row.getterName);
        ValuesList list;
        (list.*row.add)("key", row.stored);
        auto out = row.other;
        EXPECT_EQ((list.*row.get)("key", out), StatusCode::Ok);
        EXPECT_TRUE(out == row.stored);
    });
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST(ValuesList, AbsentKeyIsReportedAndLeavesTheOutputAlone) {
    ForEachType([](const auto& row) {
        SCOPED_TRACE(row.getterName);
        const LogCapture log;
        ValuesList list;
        (list.*row.add)("_Name", row.stored);
        auto out = row.other;
        EXPECT_EQ((list.*row.get)("_name", out), StatusCode::KeyNotFound);
        EXPECT_TRUE(out == row.other);
        EXPECT_THAT(log.Entries(),
                    ElementsAre(Trace("Service", std::string(row.getterName) + ": key:'_name' not found")));
    });
}

TEST(ValuesList, AnotherTypeIsReportedLikeAnAbsentKey) {
    ValuesList list;
    AddOneOfEach(list);
    ForEachType([&](const auto& row) {
        for (const std::string& key : list.Keys()) {
            const LogCapture log;
            SCOPED_TRACE(std::string(row.getterName) + " of what is for " + key);
            auto out = row.other;
            const StatusCode status = (list.*row.get)(key, out);
            if (key == row.getterName) {
                EXPECT_EQ(status, StatusCode::Ok);
                EXPECT_TRUE(out == row.stored);
                continue;
            }
            EXPECT_EQ(status, StatusCode::KeyNotFound);
            EXPECT_TRUE(out == row.other);
            EXPECT_THAT(log.Entries(), ElementsAre(Trace("Service", std::string(row.getterName) + ": key:'" +
                                                                        key + "' not found")));
        }
    });
}

TEST(ValuesList, MissedKeyIsNotLoggedBelowDebugLevel) {
    const LogCapture log(6);
    int out = 0;
    EXPECT_EQ(ValuesList().GetInt32("absent", out), StatusCode::KeyNotFound);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST(ValuesList, FirstValueOfAKeyStays) {
    ValuesList list;
    list.AddValueInt32("k", 5);
    list.AddValueString("k", "x");
    list.AddValueInt32("k", 6);
    int number = 0;
    std::string text = "untouched";
    EXPECT_EQ(list.GetInt32("k", number), StatusCode::Ok);
    EXPECT_EQ(number, 5);
    EXPECT_EQ(list.GetString("k", text), StatusCode::KeyNotFound);
    EXPECT_EQ(text, "untouched");
    EXPECT_EQ(list.Size(), 1U);
}

TEST(ValuesList, ADuplicateOfEachTypeBuildsNothing) {
    ForEachType([](const auto& row) {
        SCOPED_TRACE(row.getterName);
        ValuesList list;
        const std::string key = "key";
        (list.*row.add)(key, row.stored);
        const AllocationCount count;
        (list.*row.add)(key, row.other);
        EXPECT_EQ(count.Get(), 0U);
        auto out = row.other;
        EXPECT_EQ((list.*row.get)(key, out), StatusCode::Ok);
        EXPECT_TRUE(out == row.stored);
    });
}

TEST(ValuesList, StoringCostsOneNodeAndOneObject) {
    ForEachType([](const auto& row) {
        SCOPED_TRACE(row.getterName);
        ValuesList list;
        const std::string key = "short";
        const AllocationCount count;
        (list.*row.add)(key, row.stored);
        EXPECT_EQ(count.Get(), 2U);
    });
    ValuesList list;
    const std::string longKey(100, 'k');
    const AllocationCount count;
    list.AddValueInt32(longKey, 1);
    EXPECT_EQ(count.Get(), 3U);  // and the key's own text
}

TEST(ValuesList, LookingUpAllocatesNothing) {
    ValuesList list;
    AddOneOfEach(list);
    ForEachType([&](const auto& row) {
        const std::string key = row.getterName;
        auto out = row.other;
        const AllocationCount count;
        static_cast<void>((list.*row.get)(key, out));
        EXPECT_EQ(count.Get(), 0U) << key;
    });
}

TEST(ValuesList, EveryValueIsFreedExactlyOnce) {
    const std::size_t allocations = ::tern::test::CountAllocations();
    const std::size_t releases = ::tern::test::CountReleases();
    {
        ValuesList list;
        AddOneOfEach(list);
        list.AddValueString(std::string(50, 'k'), std::string(1000, 'x'));
        list.AddValueISI(std::string(60, 'k'), ValueISI(1, std::string(1000, 'x'), 2));
        AddOneOfEach(list);  // duplicates all
    }
    { const ValuesList empty; }
    EXPECT_GT(::tern::test::CountAllocations(), allocations + 24);
    EXPECT_EQ(::tern::test::CountAllocations() - allocations, ::tern::test::CountReleases() - releases);
}

TEST(ValuesList, KeysAreComparedByBytes) {
    ValuesList list;
    list.AddValueInt32("_name", 1);
    list.AddValueInt32("_Name", 2);
    list.AddValueInt32("", 3);
    list.AddValueInt32("\xc3\xa9", 4);
    list.AddValueInt32(std::string("a\0b", 3), 5);
    list.AddValueInt32("a", 6);
    EXPECT_THAT(list.Keys(), ElementsAre("", "_Name", "_name", "a", std::string("a\0b", 3), "\xc3\xa9"));
    int out = 0;
    EXPECT_EQ(list.GetInt32("_Name", out), StatusCode::Ok);
    EXPECT_EQ(out, 2);
    EXPECT_EQ(list.GetInt32(std::string("a\0b", 3), out), StatusCode::Ok);
    EXPECT_EQ(out, 5);
    EXPECT_EQ(list.GetInt32("", out), StatusCode::Ok);
    EXPECT_EQ(out, 3);
}

TEST(ValuesList, TellsWhatItHolds) {
    ValuesList list;
    EXPECT_EQ(list.Size(), 0U);
    EXPECT_FALSE(list.Contains("GetISI"));
    EXPECT_THAT(list.Keys(), IsEmpty());
    AddOneOfEach(list);
    EXPECT_EQ(list.Size(), 12U);
    EXPECT_TRUE(list.Contains("GetISI"));
    EXPECT_FALSE(list.Contains("getISI"));
}

TEST(ValuesList, GetStringReplacesTheWholeContent) {
    ValuesList list;
    list.AddValueString("k", "new");
    list.AddValueString("empty", "");
    std::string out = "a much longer former content of the variable";
    EXPECT_EQ(list.GetString("k", out), StatusCode::Ok);
    EXPECT_EQ(out, "new");
    EXPECT_EQ(list.GetString("empty", out), StatusCode::Ok);
    EXPECT_EQ(out, "");
}

TEST(ValuesList, AddersCopyWhatTheyAreGiven) {
    ValuesList list;
    std::string text = "before";
    ValueISI structure(1, "before", 2);
    list.AddValueString("s", text);
    list.AddValueISI("isi", structure);
    text = "after";
    structure = ValueISI(3, "after", 4);
    EXPECT_EQ(list.GetString("s", text), StatusCode::Ok);
    EXPECT_EQ(text, "before");
    EXPECT_EQ(list.GetISI("isi", structure), StatusCode::Ok);
    EXPECT_TRUE(structure == ValueISI(1, "before", 2));
}

TEST(ValuesList, IsNeitherCopiedNorAssigned) {
    EXPECT_FALSE(std::is_copy_constructible_v<ValuesList>);
    EXPECT_FALSE(std::is_copy_assignable_v<ValuesList>);
    EXPECT_TRUE(std::has_virtual_destructor_v<ValuesList>);
}

}  // namespace
}  // namespace mw::tern::DBusMessage
