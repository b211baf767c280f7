#include "diagnostics/object_table.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <set>
#include <unordered_map>
#include <vector>

namespace {

using mwl::Diagnostics::ObjectTable;
namespace KnownObjects = mwl::KnownObjects;
using KnownObjects::Kind;

/// Addresses are never followed, so any will do.
const void* Address(std::uintptr_t number) {
    return reinterpret_cast<const void*>(0x7f000000U + number * 16);
}

struct ObjectTableTest : testing::Test {
    /// Too large for a stack under a sanitizer.
    std::unique_ptr<ObjectTable> table = std::make_unique<ObjectTable>();
};

TEST_F(ObjectTableTest, RowIsFoundByItsObject) {
    EXPECT_EQ(table->Find(Address(1)), nullptr);
    ObjectTable::Row* const row = table->Take(Address(1), Kind::Pool, 7);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->object, Address(1));
    EXPECT_EQ(row->kind, Kind::Pool);
    EXPECT_EQ(row->name, 7);
    EXPECT_EQ(table->Find(Address(1)), row);
    EXPECT_EQ(table->Find(Address(2)), nullptr);
    table->GiveBack(Address(1));
    EXPECT_EQ(table->Find(Address(1)), nullptr);
}

TEST_F(ObjectTableTest, ObjectThatHasARowKeepsItWithNewFigures) {
    ObjectTable::Row* const row = table->Take(Address(1), Kind::Pool, 7);
    for (auto* const figure : {&row->asked, &row->begun, &row->done, &row->longest, &row->largest}) {
        *figure = 5;
    }
    EXPECT_EQ(table->Take(Address(1), Kind::Timer, 8), row);
    EXPECT_EQ(row->kind, Kind::Timer);
    EXPECT_EQ(row->name, 8);
    for (auto* const figure : {&row->asked, &row->begun, &row->done, &row->longest, &row->largest}) {
        EXPECT_EQ(*figure, 0U);
    }
    // It stands there once.
    table->GiveBack(Address(1));
    EXPECT_EQ(table->Find(Address(1)), nullptr);
}

TEST_F(ObjectTableTest, HasARowForAsManyAsThereCanBe) {
    std::set<ObjectTable::Row*> rows;
    for (std::size_t i = 0; i < KnownObjects::MOST; ++i) {
        ObjectTable::Row* const row = table->Take(Address(i), Kind::Pipe, 1);
        ASSERT_NE(row, nullptr) << i;
        rows.insert(row);
    }
    EXPECT_EQ(rows.size(), KnownObjects::MOST);
    EXPECT_EQ(table->Take(Address(KnownObjects::MOST), Kind::Pipe, 1), nullptr);
    for (std::size_t i = 0; i < KnownObjects::MOST; ++i) {
        ASSERT_NE(table->Find(Address(i)), nullptr);
        EXPECT_EQ(table->Find(Address(i))->object, Address(i));
    }
    table->GiveBack(Address(100));
    EXPECT_NE(table->Take(Address(KnownObjects::MOST), Kind::Pipe, 1), nullptr);
    table->Clear();
    for (std::size_t i = 0; i <= KnownObjects::MOST; ++i) {
        EXPECT_EQ(table->Find(Address(i)), nullptr);
    }
    for (const ObjectTable::Row* const row : rows) {
        EXPECT_EQ(row->object, nullptr);
    }
    for (std::size_t i = 0; i < KnownObjects::MOST; ++i) {
        ASSERT_NE(table->Take(Address(1000 + i), Kind::Pipe, 1), nullptr) << i;
    }
}

TEST_F(ObjectTableTest, FewObjectsTakeTheFirstRows) {
    ObjectTable::Row* const first = table->Take(Address(1), Kind::Pool, 1);
    ObjectTable::Row* const second = table->Take(Address(2), Kind::Pool, 1);
    EXPECT_EQ(second, first + 1);
    table->GiveBack(Address(1));
    EXPECT_EQ(table->Take(Address(3), Kind::Pool, 1), first);
    EXPECT_EQ(table->Take(Address(4), Kind::Pool, 1), second + 1);
}

/// Addresses that are looked for at one place, the last but one of the table.
std::vector<const void*> Neighbours(std::size_t count) {
    std::vector<const void*> all;
    const auto place = [](const void* object) {
        return (reinterpret_cast<std::uintptr_t>(object) >> 4U) * std::uint64_t{0x9e3779b97f4a7c15} >> 55U;
    };
    for (std::uintptr_t i = 0; all.size() < count; ++i) {
        if (place(Address(i)) == 510) {
            all.push_back(Address(i));
        }
    }
    return all;
}

TEST_F(ObjectTableTest, ObjectsOfOnePlaceStandBehindEachOtherAroundTheEnd) {
    const std::vector<const void*> all = Neighbours(65);
    for (std::size_t i = 0; i < 64; ++i) {
        ASSERT_NE(table->Take(all[i], Kind::Pool, static_cast<std::uint16_t>(i)), nullptr) << i;
    }
    // Further than that nobody looks.
    EXPECT_EQ(table->Take(all[64], Kind::Pool, 64), nullptr);
    EXPECT_EQ(table->Find(all[64]), nullptr);
    for (std::size_t i = 0; i < 64; ++i) {
        ASSERT_NE(table->Find(all[i]), nullptr) << i;
        EXPECT_EQ(table->Find(all[i])->name, i);
    }
    // One from the middle leaves those behind it to be found, and its place to another one.
    table->GiveBack(all[10]);
    EXPECT_EQ(table->Find(all[10]), nullptr);
    EXPECT_NE(table->Find(all[11]), nullptr);
    EXPECT_NE(table->Find(all[63]), nullptr);
    EXPECT_NE(table->Take(all[64], Kind::Pool, 64), nullptr);
    EXPECT_EQ(table->Find(all[64])->name, 64);
    EXPECT_EQ(table->Find(all[63])->name, 63);
    for (const void* const object : all) {
        table->GiveBack(object);
        EXPECT_EQ(table->Find(object), nullptr);
    }
}

TEST_F(ObjectTableTest, ComesAndGoesAsAMapDoes) {
    std::mt19937 random(4711);  // NOLINT(cert-msc51-cpp): the same every time
    std::unordered_map<const void*, std::uint16_t> there;
    for (int step = 0; step < 200000; ++step) {
        const void* const object = Address(random() % 300);
        const auto name = static_cast<std::uint16_t>(random() % 1000);
        if (random() % 2 == 0 && (there.size() < 200 || there.count(object) != 0)) {
            ASSERT_NE(table->Take(object, Kind::Watched, name), nullptr);
            there[object] = name;
        } else {
            table->GiveBack(object);
            there.erase(object);
        }
        const void* const other = Address(random() % 300);
        const ObjectTable::Row* const row = table->Find(other);
        const auto found = there.find(other);
        ASSERT_EQ(row != nullptr, found != there.end());
        if (row != nullptr) {
            ASSERT_EQ(row->name, found->second);
            ASSERT_EQ(row->object, other);
        }
    }
}

}  // namespace
