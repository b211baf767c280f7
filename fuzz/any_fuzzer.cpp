#include <tern/typed/codec.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "tests/dbus_message/raw_messages.h"

// Values of arbitrary types, as they arrive in messages: taken apart and put together again, read as types of
// ours, copied, compared, written as what they are and as variants, and shown. An input is one byte that
// picks the byte order, the signature and a null byte, the body.

namespace {

using namespace mwl::Typed;
using tern::test::BusMessage;
using tern::test::TestMessages;

void Require(bool held) {
    if (!held) {
        std::abort();
    }
}

/// A double that is no number is not even equal to itself, so that what holds it is not either.
bool IsSame(const Any& one, const Any& other) {
    return one.GetSignature() == other.GetSignature() && one.ToText() == other.ToText() &&
           (one == other || one != one);
}

void CheckSigned(const Any& value) {
    if (const auto number = value.As<std::int64_t>()) {
        Require(IsSame(Any::From(*number), value) && value.ToText() == std::to_string(*number));
    } else if (const auto shorter = value.As<std::int16_t>()) {
        Require(IsSame(Any::From(*shorter), value) && value.ToText() == std::to_string(*shorter));
    }
}

/// At most one of the types fits, and what it gives makes the value again.
void CheckTypes(const Any& value) {
    CheckSigned(value);
    if (const auto text = value.As<std::string>()) {
        Require(IsText(*text) && IsSame(Any::From(*text), value) && *value.As<std::string_view>() == *text);
    }
    if (const auto numbers = value.As<std::vector<std::uint32_t>>()) {
        Require(numbers->size() == value.Size() && IsSame(Any::From(*numbers), value));
    }
    if (const auto options = value.As<std::map<std::string, Any>>()) {
        // A key that comes twice is there once.
        Require(options->size() <= value.Size());
        Require(options->size() < value.Size() || Any::From(*options).Size() == value.Size());
    }
    if (const auto pair = value.As<std::tuple<std::string, Any>>()) {
        Require(IsSame(Any::From(*pair), value));
    }
}

void CheckParts(const Any& value, unsigned depth) {
    Require(depth <= Any::MAX_NESTING + 1);
    const std::size_t count = value.Size();
    Require(value.At(count).IsEmpty() && value.At(std::numeric_limits<std::size_t>::max()).IsEmpty());
    const char first = value.GetSignature().front();
    if (first != 'a' && first != '(' && first != '{' && first != 'v') {
        Require(count == 0);
        return;
    }
    // What is far in costs as much as its depth each time; the first elements tell.
    std::vector<Any> parts;
    for (std::size_t i = 0; i < count; ++i) {
        parts.push_back(value.At(i));
        Require(!parts.back().IsEmpty());
        if (i < 4) {
            CheckParts(parts.back(), depth + 1);
        }
    }
    if (depth == 0) {
        Require(IsSame(Any::Compose(value.GetSignature(), parts), value));
    }
}

void CheckWriting(TestMessages& messages, const Any& value, const std::string& type, const Any& expected) {
    const BusMessage copy = messages.New();
    Fault fault;
    Require(WriteAnyAs(copy.get(), type, value, fault) >= 0);
    TestMessages::Seal(copy);
    std::vector<Any> again;
    unsigned index = 0;
    Require(ReadAnyEach(copy.get(), again, fault, index) >= 0);
    Require(again.size() == 1 && IsSame(again.front(), expected));
}

void Check(TestMessages& messages, const Any& value) {
    Require(!value.IsEmpty() && IsText(value.ToText()) && IsSignature(value.GetSignature()));
    Any copy = value;
    Require(IsSame(copy, value));
    const Any moved = std::move(copy);
    Require(IsSame(moved, value));
    CheckTypes(value);
    CheckParts(value, 0);
    CheckWriting(messages, value, value.GetSignature(), value);
    if (value.GetSignature() == "v") {
        CheckWriting(messages, value, "v", value);
        return;
    }
    const Any wrapped = Any::Compose("v", {value});
    if (!wrapped.IsEmpty()) {  // beyond the nesting that is taken otherwise
        CheckWriting(messages, value, "v", wrapped);
    }
    const BusMessage other = messages.New();
    Fault fault;
    Require(WriteAnyAs(other.get(), value.GetSignature() == "s" ? "u" : "s", value, fault) == -EINVAL);
    Require(IsText(fault.text) && fault.text[0] != '\0');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static tern::test::RawMessages raw;
    static TestMessages messages;
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::size_t end = input.find('\0', 1);
    if (end == std::string_view::npos || end > 256) {
        return 0;
    }
    const auto order = static_cast<unsigned char>(input.front()) < 128 ? tern::test::ByteOrder::Little
                                                                       : tern::test::ByteOrder::Big;
    const BusMessage message = raw.Deliver(input.substr(1, end - 1), input.substr(end + 1), order);
    if (message == nullptr) {
        return 0;
    }
    std::vector<Any> values;
    Fault fault;
    unsigned index = 0;
    if (ReadAnyEach(message.get(), values, fault, index) < 0) {
        Require(values.empty() && IsText(fault.text) && IsText(fault.where));
        return 0;
    }
    for (const Any& value : values) {
        Check(messages, value);
    }
    return 0;
}
