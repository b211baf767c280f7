#pragma once

#include <gtest/gtest.h>
#include <stdio.h>
#include <tern/typed/codec.h>

#include <cstdlib>
#include <string>
#include <utility>

#include "tests/dbus_message/test_messages.h"

namespace tern::test {

/// What a reader said, and what it read.
template <class T>
struct ReadValue {
    int result = 0;
    T value{};
    mwl::Typed::Fault fault{};

    std::string Text() const { return fault.text; }
    std::string Where() const { return fault.where; }
};

template <class T>
ReadValue<T> ReadOne(const BusMessage& message) {
    ReadValue<T> read;
    read.result = mwl::Typed::Read(message.get(), read.value, read.fault);
    return read;
}

/// Types and values of the whole body, as sd-bus prints them.
inline std::string Body(const BusMessage& message) {
    char* text = nullptr;
    std::size_t size = 0;
    FILE* const stream = open_memstream(&text, &size);
    Require(sd_bus_message_rewind(message.get(), 1), "sd_bus_message_rewind");
    Require(sd_bus_message_dump(message.get(), stream, SD_BUS_MESSAGE_DUMP_SUBTREE_ONLY),
            "sd_bus_message_dump");
    Require(sd_bus_message_rewind(message.get(), 1), "sd_bus_message_rewind");
    static_cast<void>(fclose(stream));
    std::string body(text, size);
    free(text);
    return body;
}

class RoundTrip : public testing::Test {
protected:
    /// A sealed message with these values, written by their codecs.
    template <class... T>
    BusMessage Written(const T&... values) {
        BusMessage message = mMessages.New();
        (Require(mwl::Typed::Write(message.get(), values), "Write"), ...);
        TestMessages::Seal(message);
        return message;
    }

    /// What the codec says of a value that it is to write.
    template <class T>
    int WriteResult(const T& value) {
        const BusMessage message = mMessages.New();
        return mwl::Typed::Write(message.get(), value);
    }

    /// Holds a codec against sd-bus: what it writes is what sd_bus_message_append(3) makes of the arguments,
    /// what it reads from that is `value`, once.
    template <class T, class... Arguments>
    void Check(const T& value, const char* types, Arguments... arguments) {
        SCOPED_TRACE(types);
        EXPECT_STREQ(mwl::Typed::SIGNATURE<T>.text, types);
        const BusMessage made = mMessages.Make(types, arguments...);
        EXPECT_EQ(Body(Written(value)), Body(made));
        const ReadValue<T> read = ReadOne<T>(made);
        EXPECT_GT(read.result, 0);
        EXPECT_TRUE(read.value == value);
        EXPECT_EQ(read.Text(), "");
        EXPECT_GT(sd_bus_message_at_end(made.get(), 1), 0);
        EXPECT_EQ(ReadOne<T>(made).result, -ENXIO);
    }

    TestMessages mMessages;
};

}  // namespace tern::test
