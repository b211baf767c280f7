#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <tern-basic-log/root_logger.h>
#include <tern/dbus_message/aoasv_signature_parser.h>
#include <tern/dbus_message/asasv_signature_parser.h>
#include <tern/dbus_message/asv_signature_parser.h>
#include <tern/dbus_message/sasvas_signature_parser.h>
#include <tern/dbus_message/vasv_signature_parser.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "tests/dbus_message/raw_messages.h"

// Flattens messages of arbitrary signature and body. An input is one byte that picks the reader, the
// signature and a null byte, the body. The message goes over a socket, so that the readers see what sd-bus
// makes of what arrived, malformed bodies included. The memory and the log of one call are held against the
// limits that Parser's header states; longer inputs (-max_len) come nearer to them.

namespace {

/// The lines that were logged since the last look.
std::size_t gLines = 0;
std::size_t gBytes = 0;
std::size_t gLongest = 0;

}  // namespace

namespace mwl::Log {

// Formats each message for the sanitizers' sake, counts it, and writes none.
void RootLogger::Print(TernLogLevel, const char* format, ...) const {
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    ++gLines;
    gBytes += static_cast<std::size_t>(length);
    gLongest = std::max(gLongest, static_cast<std::size_t>(length));
}

}  // namespace mwl::Log

namespace {

using namespace mw::tern::DBusMessage;

/// Holds one call to what it may log. Each line has at most two texts of the message.
class BoundedLog {
public:
    BoundedLog() { gLines = gBytes = gLongest = 0; }
    ~BoundedLog() {
        constexpr std::size_t LONGEST = 2 * 1024 + 400;
        // The sum, and what the caller of the reader adds; the line that reaches the limit is still written,
        // and what is around the texts is counted as if it had one length.
        constexpr std::size_t LINES = 512 + 2;
        constexpr std::size_t BYTES = std::size_t{64} * 1024 + LINES * 64 + LONGEST;
        if (gLines > LINES || gBytes > BYTES || gLongest > LONGEST) {
            abort();
        }
    }
    BoundedLog(const BoundedLog&) = delete;
    BoundedLog& operator=(const BoundedLog&) = delete;
};

/// Reads each key back, as the application would.
void ReadBack(const ValuesList& list) {
    std::size_t found = 0;
    std::size_t held = 0;
    for (const std::string& key : list.Keys()) {
        int number = 0;
        std::string text;
        ValueISI structure;
        found += list.GetInt32(key, number) == mw::tern::StatusCode::Ok;
        found += list.GetString(key, text) == mw::tern::StatusCode::Ok;
        found += list.GetISI(key, structure) == mw::tern::StatusCode::Ok;
        held += key.size() + text.size() + structure.text.size();
    }
    if (found > list.Size()) {
        abort();  // a key has more than one type
    }
    if (held > std::size_t{64} * 1024 * 1024) {
        abort();
    }
}

template <typename Base>
class Receiver : public Base {
public:
    using Base::Base;
    void OnEntry(const std::string&, const ValuesList& values) override {
        const std::size_t lines = gLines;
        const std::size_t bytes = gBytes;
        const std::size_t longest = gLongest;
        ReadBack(values);
        gLines = lines;
        gBytes = bytes;
        gLongest = longest;
    }
};

template <typename StructuresParser>
void HandOut(sd_bus_message* message) {
    const BoundedLog log;
    static_cast<void>(Receiver<StructuresParser>(message).ParseMessage());
}

template <typename SignatureParser>
void Parse(sd_bus_message* message) {
    SignatureParser parser(message);
    {
        const BoundedLog log;
        static_cast<void>(parser.ParseMessage());
    }
    ReadBack(parser.GetValuesList());
}

/// Goes through the whole body with the readers that fit, and with one that does not when none does.
void WalkByHand(sd_bus_message* message) {
    Parser parser(message);
    for (int step = 0; step < 64; ++step) {
        char type = 0;
        const char* contents = nullptr;
        if (sd_bus_message_peek_type(message, &type, &contents) <= 0) {
            break;
        }
        const BoundedLog log;
        int result = 0;
        const char single[] = {type, '\0'};
        switch (type) {
            case 'v':
                result = parser.ReadVariant("p", "v");
                break;
            case 'r':
                result = parser.ReadISI("p", "isi");
                break;
            case 'a':
                result = std::string_view(contents) == "{sv}" ? parser.ReadArrayOfDictionaries("p")
                                                              : parser.ReadArrayOfStrings("p", "as");
                break;
            default:
                result = parser.ReadVariantContent("p", single, single);
                break;
        }
        if (result < 0) {
            break;
        }
    }
    ReadBack(parser.GetValuesList());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    return setenv("TERN_LOG_LEVEL", "debug", 1);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static tern::test::RawMessages messages;
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::size_t end = input.find('\0', 1);
    if (end == std::string_view::npos || end > 256) {
        return 0;
    }
    const tern::test::BusMessage message = messages.Deliver(input.substr(1, end - 1), input.substr(end + 1));
    if (message == nullptr) {
        return 0;
    }
    switch (input.front() % 6) {
        case 0:
            Parse<ASVsignatureParser>(message.get());
            break;
        case 1:
            Parse<VASVsignatureParser>(message.get());
            break;
        case 2:
            Parse<SASVASsignatureParser>(message.get());
            break;
        case 3:
            HandOut<AOASVsignatureParser>(message.get());
            break;
        case 4:
            HandOut<ASASVsignatureParser>(message.get());
            break;
        default:
            WalkByHand(message.get());
            break;
    }
    return 0;
}
