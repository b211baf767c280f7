#pragma once

// What the tests of Parser share: messages, and calls of sd-bus that fail. Include it in the one source of a
// test program.

#include <tern/dbus_message/parser.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "support/allocations.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/process_resources.h"
#include "test_messages.h"

TERN_INTERPOSE(int, sd_bus_message_read_basic, (sd_bus_message * message, char type, void* value),
               (message, type, value))
TERN_INTERPOSE(int, sd_bus_message_peek_type, (sd_bus_message * message, char* type, const char** contents),
               (message, type, contents))
TERN_INTERPOSE(int, sd_bus_message_enter_container,
               (sd_bus_message * message, char type, const char* contents), (message, type, contents))
TERN_INTERPOSE(int, sd_bus_message_skip, (sd_bus_message * message, const char* types), (message, types))

namespace mw::tern::DBusMessage::Tests {

using ::tern::test::AllocationCount;
using ::tern::test::BusMessage;
using ::tern::test::Error;
using ::tern::test::FaultScope;
using ::tern::test::Info;
using ::tern::test::LogCapture;
using ::tern::test::LogEntry;
using ::tern::test::Require;
using ::tern::test::TestMessages;
using ::tern::test::Trace;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ParserTest : public ::testing::Test {
protected:
    static void AppendInt(sd_bus_message* message, const std::string& name, int value) {
        Require(sd_bus_message_append(message, "{sv}", name.c_str(), "i", value), "append");
    }

    TestMessages mMessages;
};

inline int GetInt(const ValuesList& list, const std::string& key) {
    int value = -12345;
    EXPECT_EQ(list.GetInt32(key, value), StatusCode::Ok) << key;
    return value;
}

inline std::string GetText(const ValuesList& list, const std::string& key) {
    std::string value = "(none)";
    EXPECT_EQ(list.GetString(key, value), StatusCode::Ok) << key;
    return value;
}

}  // namespace mw::tern::DBusMessage::Tests
