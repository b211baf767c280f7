#include "diagnostics/clean_text.h"

#include <cstddef>
#include <cstdint>

namespace mwl::Diagnostics {

namespace {

/// Length of the printable character that the text begins with; 0 when it begins with none.
std::size_t CharacterLength(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) {
        return lead >= 0x20 && lead != 0x7f ? 1 : 0;
    }
    const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || text.size() < length) {
        return 0;
    }
    std::uint32_t code = lead & (0x7fU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0U) != 0x80U) {
            return 0;
        }
        code = code << 6U | (byte(i) & 0x3fU);
    }
    constexpr std::uint32_t SMALLEST[] = {0, 0, 0xa0, 0x800,
                                          0x10000};  // from U+00A0: those before are control characters
    const bool isSurrogate = code >= 0xd800 && code <= 0xdfff;
    // Text with one of these cannot be sent on a bus.
    const bool isNoCharacter = (code >= 0xfdd0 && code <= 0xfdef) || (code & 0xfffeU) == 0xfffeU;
    return code < SMALLEST[length] || code > 0x10ffff || isSurrogate || isNoCharacter ? 0 : length;
}

}  // namespace

std::string CleanText(std::string_view text) {
    text = text.substr(0, text.find('\0'));
    std::string clean;
    clean.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = CharacterLength(text);
        if (length == 0) {
            clean += '?';
            text.remove_prefix(1);
        } else {
            clean += text.substr(0, length);
            text.remove_prefix(length);
        }
    }
    return clean;
}

}  // namespace mwl::Diagnostics
