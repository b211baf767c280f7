#include <tern/typed/codec.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "tests/dbus_message/raw_messages.h"

// Reads messages of arbitrary signature and body with every kind of codec. An input is one byte that picks
// the byte order and the type, the signature and a null byte, the body. The message goes over a socket, so
// that the codecs see what sd-bus makes of what arrived, malformed bodies included. A value that was read has
// to be the same after it is written and read again. A refusal with a text has to have one that can be sent
// as an error.

namespace {

using namespace mwl::Typed;

enum class Mode : std::uint8_t { Off, On };
constexpr auto DBusEnum(Mode) {
    return std::array{Mode::Off, Mode::On};
}
enum class Speed { Slow, Fast };
constexpr auto DBusEnum(Speed) {
    return std::array{EnumText{Speed::Slow, "slow"}, EnumText{Speed::Fast, "fast"}};
}

struct Zone {
    std::uint16_t number = 0;
    std::string name;
    std::vector<std::vector<std::uint32_t>> levels;
    bool operator==(const Zone&) const = default;
};
struct Options {
    std::uint32_t seconds = 0;
    std::optional<std::string> zone;
    std::optional<std::vector<Mode>> modes;
    std::optional<Any> anything;
    static constexpr auto DBusFields() {
        return Fields(Field("Seconds", &Options::seconds), Field("Zone", &Options::zone),
                      Field("Modes", &Options::modes), Field("Anything", &Options::anything));
    }
    bool operator==(const Options&) const = default;
};

void Require(bool held) {
    if (!held) {
        std::abort();
    }
}

template <class T>
void Read(tern::test::TestMessages& messages, sd_bus_message* message) {
    for (;;) {
        T value{};
        Fault fault;
        const int result = Codec<T>::Read(message, value, fault);
        Require(std::string_view(fault.text).size() < sizeof fault.text && IsText(fault.text));
        Require(std::string_view(fault.where).size() < sizeof fault.where && IsText(fault.where));
        if (result <= 0) {
            Require(result != 0);  // it is not in an array
            return;
        }
        const tern::test::BusMessage copy = messages.New();
        Require(Codec<T>::Write(copy.get(), value) >= 0);
        tern::test::TestMessages::Seal(copy);
        T again{};
        Require(Codec<T>::Read(copy.get(), again, fault) > 0);
        Require(again == value || value != value);  // a double that is no number is not even equal to itself
        if constexpr (std::is_same_v<T, Any>) {
            Require(again.ToText() == value.ToText() && again.GetSignature() == value.GetSignature());
            Require(IsText(value.ToText()));
        }
    }
}

/// Values that point into the message, and descriptors: only read.
template <class T>
void Look(sd_bus_message* message) {
    T value{};
    Fault fault;
    static_cast<void>(Codec<T>::Read(message, value, fault));
    Require(IsText(fault.text) && IsText(fault.where));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static tern::test::RawMessages raw;
    static tern::test::TestMessages messages;
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::size_t end = input.find('\0', 1);
    if (end == std::string_view::npos || end > 256) {
        return 0;
    }
    const unsigned pick = static_cast<unsigned char>(input.front());
    const tern::test::ByteOrder order =
        pick < 128 ? tern::test::ByteOrder::Little : tern::test::ByteOrder::Big;
    const tern::test::BusMessage message =
        raw.Deliver(input.substr(1, end - 1), input.substr(end + 1), order);
    if (message == nullptr) {
        return 0;
    }
    sd_bus_message* const received = message.get();
    switch (pick % 16) {
        case 0:
            Read<std::vector<std::uint16_t>>(messages, received);
            break;
        case 1:
            Read<std::array<double, 2>>(messages, received);
            break;
        case 2:
            Read<std::vector<Zone>>(messages, received);
            break;
        case 3:
            Read<Options>(messages, received);
            break;
        case 4:
            Read<std::map<std::string, std::variant<std::int32_t, std::string, std::vector<Speed>>>>(
                messages, received);
            break;
        case 5:
            Read<std::unordered_map<ObjectPath, std::map<std::string, Options>>>(messages, received);
            break;
        case 6:
            Read<std::tuple<bool, Signature, std::vector<bool>>>(messages, received);
            break;
        case 7:
            Look<std::vector<std::span<const std::uint64_t>>>(received);
            break;
        case 8:
            Look<std::map<std::string_view, std::tuple<OwnedFd, BorrowedFd>>>(received);
            break;
        default:
            Read<Any>(messages, received);
            break;
    }
    return 0;
}
