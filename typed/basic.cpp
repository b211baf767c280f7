#include <tern/typed/basic.h>

#include <tern/typed/types.h>

#include <cstring>
#include <new>

namespace mwl::Typed {

namespace {

/// Length of the UTF-8 sequence that begins at `at` with a byte above 0x7f; 0 when there is none that sd-bus
/// takes.
std::size_t LengthOfSequence(const unsigned char* at, std::size_t left) {
    const unsigned char lead = at[0];
    const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || length > left) {
        return 0;
    }
    std::uint32_t point = lead & (0xffU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if ((at[i] & 0xc0) != 0x80) {
            return 0;
        }
        point = point << 6 | (at[i] & 0x3fU);
    }
    constexpr std::uint32_t SMALLEST[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool isSurrogate = point >= 0xd800 && point <= 0xdfff;
    const bool isNoCharacter = (point >= 0xfdd0 && point <= 0xfdef) || (point & 0xfffe) == 0xfffe;
    return point < SMALLEST[length] || point > 0x10ffff || isSurrogate || isNoCharacter ? 0 : length;
}

bool HasZeroOrHighByte(std::uint64_t bytes) {
    constexpr std::uint64_t ONES = 0x0101010101010101;
    constexpr std::uint64_t HIGH = 0x8080808080808080;
    return (((bytes - ONES) | bytes) & HIGH) !=
           0;  // also for some others above a zero byte: looked at one by one
}

}  // namespace

bool IsText(std::string_view text) noexcept {
    const auto* at = reinterpret_cast<const unsigned char*>(text.data());
    std::size_t left = text.size();
    while (left > 0) {
        // Most text is ASCII: eight characters at a time.
        std::uint64_t bytes;
        while (left >= sizeof bytes) {
            std::memcpy(&bytes, at, sizeof bytes);
            if (HasZeroOrHighByte(bytes)) {
                break;
            }
            at += sizeof bytes;
            left -= sizeof bytes;
        }
        for (int i = 0; i < static_cast<int>(sizeof bytes) && left > 0; ++i) {
            const std::size_t length = *at >= 0x80 ? LengthOfSequence(at, left) : *at != 0 ? 1 : 0;
            if (length == 0) {
                return false;
            }
            at += length;
            left -= length;
        }
    }
    return true;
}

int AppendText(sd_bus_message* message, char code, std::string_view text) {
    const bool isGood = code == 'o' ? IsObjectPath(text) : code == 'g' ? IsSignature(text) : IsText(text);
    if (!isGood) {
        return -EINVAL;
    }
    if (code == 's') {
        // Copied once, without a null character behind it here; sd-bus itself checks nothing on this way.
        char* space = nullptr;
        const int result = sd_bus_message_append_string_space(message, text.size(), &space);
        if (result >= 0 && !text.empty()) {
            std::memcpy(space, text.data(), text.size());
        }
        return result;
    }
    try {
        return sd_bus_message_append_basic(message, code, std::string(text).c_str());
    } catch (const std::bad_alloc&) {
        return -ENOMEM;
    }
}

namespace Detail {

int ReadText(sd_bus_message* message, char code, std::string_view& text) {
    const char* read = nullptr;
    const int result = sd_bus_message_read_basic(message, code, &read);
    if (result > 0) {
        text = read;
    }
    return result;
}

int ReadText(sd_bus_message* message, char code, std::string& text) {
    std::string_view view;
    const int result = ReadText(message, code, view);
    if (result > 0) {
        text = view;
    }
    return result;
}

}  // namespace Detail

}  // namespace mwl::Typed
