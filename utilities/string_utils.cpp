#include <tern/utilities/string_utils.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <system_error>
#include <utility>

namespace mwl::Utilities {

namespace {

/// White space as strtoul(3) skips it in the C locale.
constexpr std::string_view WHITE_SPACE = " \t\n\v\f\r";

/// Length that a lead byte announces; 0 for a byte that is none.
std::size_t SequenceLength(unsigned char lead) {
    if (lead < 0x80U) {
        return 1;
    }
    if ((lead & 0xE0U) == 0xC0U) {
        return 2;
    }
    if ((lead & 0xF0U) == 0xE0U) {
        return 3;
    }
    if ((lead & 0xF8U) == 0xF0U) {
        return 4;
    }
    return 0;
}

/// Whether `rest` begins with a whole sequence, and the length that its first byte announces (1 for none).
/// Fixed by the interface: nothing beyond lead and continuation bytes is looked at, so overlong forms and
/// surrogates pass.
bool BeginsWithSequence(std::string_view rest, std::size_t& length) {
    const std::size_t announced = rest.empty() ? 0 : SequenceLength(static_cast<unsigned char>(rest[0]));
    if (announced == 0) {
        length = 1;
        return false;
    }
    length = announced;
    if (rest.size() < length) {
        return false;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((static_cast<unsigned char>(rest[i]) & 0xC0U) != 0x80U) {
            return false;
        }
    }
    return true;
}

/// Fixed by the interface: an empty pattern is found before every character and at the end.
void InsertEverywhere(std::string& text, const std::string& inserted) {
    std::string result;
    result.reserve(text.size() + (text.size() + 1) * inserted.size());
    for (const char character : text) {
        result += inserted;
        result += character;
    }
    result += inserted;
    text = std::move(result);
}

}  // namespace

std::string& StringUtils::Replace(std::string& text, const std::string& from, const std::string& to,
                                  bool all) {
    if (from.empty() && all) {
        InsertEverywhere(text, to);
        return text;
    }
    std::size_t position = text.find(from);
    while (position != std::string::npos) {
        text.replace(position, from.size(), to);
        // Fixed by the interface: one character on, not behind the replacement, which may thus be found
        // again.
        position = all ? text.find(from, position + 1) : std::string::npos;
    }
    return text;
}

std::string& StringUtils::Rtrim(std::string& text, char c) {
    text.erase(text.find_last_not_of(c) + 1);
    return text;
}

std::string StringUtils::Join(const std::vector<std::string>& items, const std::string& separator) {
    std::string joined;
    bool first = true;
    for (const std::string& item : items) {
        if (!first) {
            joined += separator;
        }
        joined += item;
        first = false;
    }
    return joined;
}

bool StringUtils::IsValidUtf8(const std::string& text, unsigned int& index, unsigned int& length) {
    const std::string_view rest = index < text.size() ? std::string_view(text).substr(index) : "";
    std::size_t announced = 0;
    const bool valid = BeginsWithSequence(rest, announced);
    length = static_cast<unsigned int>(announced);
    return valid;
}

bool StringUtils::ValidateUTF8Sequence(const std::string& text) {
    std::string_view rest = text;
    while (!rest.empty()) {
        std::size_t length = 0;
        if (!BeginsWithSequence(rest, length)) {
            return false;
        }
        rest.remove_prefix(length);
    }
    return true;
}

unsigned int StringUtils::ToUint32(const std::string& text, unsigned int defaultValue) {
    std::string_view rest = text;
    rest.remove_prefix(std::min(rest.find_first_not_of(WHITE_SPACE), rest.size()));
    const bool negative = !rest.empty() && rest[0] == '-';
    if (negative || (!rest.empty() && rest[0] == '+')) {
        rest.remove_prefix(1);
    }
    std::uint32_t magnitude = 0;
    if (std::from_chars(rest.data(), rest.data() + rest.size(), magnitude).ec != std::errc()) {
        return defaultValue;
    }
    return negative ? 0U - magnitude : magnitude;
}

bool StringUtils::StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

std::vector<std::string> StringUtils::Split(const std::string& text, char delimiter) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    std::size_t position = text.find(delimiter);
    while (position != std::string::npos) {
        parts.push_back(text.substr(start, position - start));
        start = position + 1;
        position = text.find(delimiter, start);
    }
    parts.push_back(text.substr(start));
    return parts;
}

}  // namespace mwl::Utilities
