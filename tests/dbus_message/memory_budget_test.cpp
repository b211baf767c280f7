#include "dbus_message/memory_budget.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <tern/dbus_message/asv_signature_parser.h>
#include <tern/dbus_message/sasvas_signature_parser.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "raw_messages.h"
#include "support/log_capture.h"

// What this program has from operator new, the library's part included, as the allocator hands it out. The
// tests have one thread.
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool IS_OTHER_ALLOCATOR = true;
#else
constexpr bool IS_OTHER_ALLOCATOR = false;
#endif

std::size_t gHeld = 0;
std::size_t gMost = 0;

/// What the C library's allocator takes for a piece.
std::size_t TakenFor(void* memory) {
    return malloc_usable_size(memory) + sizeof(std::size_t);
}

}  // namespace

void* operator new(std::size_t size) {
    void* const memory = malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    gHeld += TakenFor(memory);
    gMost = std::max(gMost, gHeld);
    return memory;
}

void operator delete(void* memory) noexcept {
    if (memory != nullptr) {
        gHeld -= TakenFor(memory);
        free(memory);
    }
}

void operator delete(void* memory, std::size_t) noexcept {
    operator delete(memory);
}

namespace mw::tern::DBusMessage {
namespace {

using ::tern::test::BusMessage;
using ::tern::test::Error;
using ::tern::test::LogCapture;
using ::tern::test::MEBIBYTE;
using ::tern::test::RawMessages;
using ::tern::test::WireWriter;

TEST(MemoryBudget, GivesItsLimitAndNotOneByteMore) {
    MemoryBudget budget;
    EXPECT_EQ(MemoryBudget::LIMIT, 67108864U);
    EXPECT_FALSE(budget.Take(MemoryBudget::LIMIT + 1));
    EXPECT_TRUE(budget.Take(MemoryBudget::LIMIT - 1));
    EXPECT_FALSE(budget.Take(2));
    EXPECT_TRUE(budget.Take(1));
    EXPECT_TRUE(budget.Take(0));
    EXPECT_FALSE(budget.Take(1));
    EXPECT_FALSE(budget.Take(static_cast<std::size_t>(-1)));
    budget.GiveBack(5);
    EXPECT_FALSE(budget.Take(6));
    EXPECT_TRUE(budget.Take(5));
}

TEST(MemoryBudget, CountsAnAllocationAsTheAllocatorDoes) {
    if (IS_OTHER_ALLOCATOR) {
        GTEST_SKIP() << "the sanitizer has an allocator of its own";
    }
    for (const std::size_t size :
         {1U, 8U, 15U, 16U, 23U, 24U, 25U, 40U, 41U, 56U, 57U, 72U, 88U, 100U, 1000U, 5000U}) {
        const std::unique_ptr<void, decltype(&free)> memory(malloc(size), free);
        EXPECT_EQ(MemoryBudget::Allocation(size), TakenFor(memory.get())) << size;
    }
}

TEST(MemoryBudget, ShortTextsAreInTheirObject) {
    EXPECT_EQ(MemoryBudget::Text(0), 0U);
    EXPECT_EQ(MemoryBudget::Text(15), 0U);
    EXPECT_EQ(MemoryBudget::Text(16), MemoryBudget::Allocation(17));
    EXPECT_EQ(MemoryBudget::Text(MEBIBYTE), MemoryBudget::Allocation(MEBIBYTE + 1));
}

/// For a message of tens of mebibytes.
#define SKIP_WHERE_LARGE_MESSAGES_TAKE_MINUTES()                                                      \
    if (IS_OTHER_ALLOCATOR) {                                                                         \
        GTEST_SKIP() << "the sanitizer's realloc copies a message again for each part that comes in"; \
    }

/// What stands in the dictionary, again and again, and the reader that gives up.
struct Row {
    const char* description;
    const char* operation;
    std::size_t times;
    std::function<void(WireWriter&, std::size_t)> write;
};

void BeginEntry(WireWriter& writer, const std::string& name, const char* signature) {
    writer.Align(8);
    writer.String(name);
    writer.Signature(signature);
}

// Each message is small beside what it would become. What is held, counted as it is allocated, comes to the
// limit and not beyond it; it is not refused far below it either.
TEST(MemoryBudget, WhatAMessageBecomesIsBounded) {
    if (sizeof(void*) == 4) {
        GTEST_SKIP() << "objects are half as large, so that these messages do not reach the limit";
    }
    const Row rows[] = {
        {"an array of empty strings", "ReadArrayOfStrings", 1,
         [](WireWriter& writer, std::size_t) {
             BeginEntry(writer, "L", "as");
             const WireWriter::Array array = writer.BeginArray(4);
             for (std::size_t i = 0; i < 500000; ++i) {
                 writer.String("");
             }
             writer.EndArray(array);
         }},
        {"bytes with names that are no short texts", "ReadByte", 450000,
         [](WireWriter& writer, std::size_t i) {
             BeginEntry(writer, "A name of some length " + std::to_string(i), "y");
             writer.Byte(1);
         }},
        {"texts", "ReadString", 400000,
         [](WireWriter& writer, std::size_t i) {
             BeginEntry(writer, std::to_string(i), "s");
             writer.String("a text of sixteen");
         }},
        {"structures", "ReadISI", 500000,
         [](WireWriter& writer, std::size_t i) {
             BeginEntry(writer, std::to_string(i), "(isi)");
             writer.Align(8);
             writer.Uint32(1);
             writer.String("");
             writer.Uint32(2);
         }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        if (IS_OTHER_ALLOCATOR && &row != rows) {
            continue;  // what is held cannot be measured, and all of it is slow
        }
        RawMessages messages;
        BusMessage message;
        {
            WireWriter writer;
            const WireWriter::Array array = writer.BeginArray(8);
            for (std::size_t i = 0; i < row.times; ++i) {
                row.write(writer, i);
            }
            writer.EndArray(array);
            message = messages.Deliver("a{sv}", writer.Bytes());
        }
        ASSERT_NE(message, nullptr);
        const LogCapture log(3);
        const std::size_t before = gHeld;
        gMost = gHeld;
        {
            ASVsignatureParser parser(message.get());
            EXPECT_EQ(parser.ParseMessage(), -ENOBUFS);
            if (!IS_OTHER_ALLOCATOR) {
                // Two pages for the messages, which the capture holds.
                EXPECT_LE(gMost - before, MemoryBudget::LIMIT + 8192);
                EXPECT_GE(gMost - before, MemoryBudget::LIMIT * 9 / 10);
            }
        }
        EXPECT_EQ(log.Count(Error("Parser", std::string("[") + row.operation +
                                                "] Keys of one message exceed 67108864 bytes")),
                  1U);
    }
}

/// The body of `levels` dictionaries, each the value of a name of so many bytes in the one around it, with
/// the byte 7 in the innermost.
std::string NestedBelow(int levels, std::size_t nameLength) {
    WireWriter writer;
    std::vector<WireWriter::Array> arrays;
    for (int level = 1; level <= levels; ++level) {
        arrays.push_back(writer.BeginArray(8));
        writer.String(std::string(nameLength, 'n'));
        writer.Signature(level == levels ? "y" : "a{sv}");
    }
    writer.Byte(7);
    for (auto array = arrays.rbegin(); array != arrays.rend(); ++array) {
        writer.EndArray(*array);
    }
    return writer.Bytes();
}

TEST(MemoryBudget, ThePathToAValueIsBounded) {
    SKIP_WHERE_LARGE_MESSAGES_TAKE_MINUTES();
    RawMessages messages;
    const BusMessage message = messages.Deliver("a{sv}", NestedBelow(40, MEBIBYTE));
    const LogCapture log(3);
    const std::size_t before = gHeld;
    gMost = gHeld;
    ASVsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), -ENOBUFS);
    EXPECT_EQ(parser.GetValuesList().Size(), 0U);
    EXPECT_TRUE(
        log.Contains(Error("Parser", "[ReadArrayOfDictionaries] Keys of one message exceed 67108864 bytes")));
    if (!IS_OTHER_ALLOCATOR) {
        // The first four mebibytes are not counted.
        EXPECT_LE(gMost - before, MemoryBudget::LIMIT + 4 * MEBIBYTE + 8192);
    }
}

TEST(MemoryBudget, ThePathIsPaidForOnce) {
    SKIP_WHERE_LARGE_MESSAGES_TAKE_MINUTES();
    // Three of 20 MiB one after the other are no more than one.
    WireWriter writer;
    const WireWriter::Array array = writer.BeginArray(8);
    for (int i = 0; i < 3; ++i) {
        BeginEntry(writer, std::string(20 * MEBIBYTE, static_cast<char>('a' + i)), "a{sv}");
        const WireWriter::Array inner = writer.BeginArray(8);
        writer.EndArray(inner);
    }
    writer.EndArray(array);
    RawMessages messages;
    const BusMessage message = messages.Deliver("a{sv}", writer.Bytes());
    ASVsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), 0);
}

TEST(MemoryBudget, NameAndDictionaryOfAMessageShareIt) {
    SKIP_WHERE_LARGE_MESSAGES_TAKE_MINUTES();
    WireWriter writer;
    writer.String(std::string(40 * MEBIBYTE, 'n'));
    const WireWriter::Array array = writer.BeginArray(8);
    BeginEntry(writer, "Text", "s");
    writer.String(std::string(30 * MEBIBYTE, 't'));
    writer.EndArray(array);
    const WireWriter::Array strings = writer.BeginArray(4);
    writer.EndArray(strings);
    RawMessages messages;
    const BusMessage message = messages.Deliver("sa{sv}as", writer.Bytes());
    const LogCapture log(3);
    SASVASsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), -ENOBUFS);
    EXPECT_EQ(parser.GetName().size(), 40 * MEBIBYTE);
    EXPECT_EQ(parser.GetValuesList().Size(), 0U);
    EXPECT_TRUE(log.Contains(Error("Parser", "[ReadString] Keys of one message exceed 67108864 bytes")));
}

TEST(MemoryBudget, ANameLongerThanTheLimitIsRefused) {
    SKIP_WHERE_LARGE_MESSAGES_TAKE_MINUTES();
    WireWriter writer;
    writer.String(std::string(65 * MEBIBYTE, 'n'));
    const WireWriter::Array array = writer.BeginArray(8);
    writer.EndArray(array);
    const WireWriter::Array strings = writer.BeginArray(4);
    writer.EndArray(strings);
    RawMessages messages;
    const BusMessage message = messages.Deliver("sa{sv}as", writer.Bytes());
    const LogCapture log(3);
    SASVASsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), -ENOBUFS);
    EXPECT_EQ(parser.GetName(), "");
    EXPECT_TRUE(log.Contains(Error("Parser", "[ParseMessage] Keys of one message exceed 67108864 bytes")));
}

}  // namespace
}  // namespace mw::tern::DBusMessage
