// The UTF-8 check beside a reading of each byte's leading bits, written as plainly as possible.
#include <tern/utilities/string_utils.h>

#include <cstdint>
#include <cstdlib>

using mwl::Utilities::StringUtils;

namespace {

void Require(bool held) {
    if (!held) {
        std::abort();
    }
}

int LeadingOnes(unsigned char byte) {
    int ones = 0;
    while (ones < 8 && ((byte >> (7 - ones)) & 1) == 1) {
        ++ones;
    }
    return ones;
}

struct Expected {
    bool valid;
    unsigned int length;
};

Expected ExpectAt(const std::string& text, std::size_t index) {
    const int ones = LeadingOnes(static_cast<unsigned char>(text[index]));
    if (ones == 0) {
        return {true, 1};
    }
    if (ones == 1 || ones > 4) {
        return {false, 1};
    }
    const auto length = static_cast<unsigned int>(ones);
    for (std::size_t i = index + 1; i < index + length; ++i) {
        if (i >= text.size() || LeadingOnes(static_cast<unsigned char>(text[i])) != 1) {
            return {false, length};
        }
    }
    return {true, length};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    for (std::size_t position = 0; position < size; ++position) {
        auto index = static_cast<unsigned int>(position);
        unsigned int length = 0;
        const Expected expected = ExpectAt(text, position);
        Require(StringUtils::IsValidUtf8(text, index, length) == expected.valid);
        Require(length == expected.length && index == position);
    }
    bool valid = true;
    for (std::size_t position = 0; position < size && valid;) {
        const Expected expected = ExpectAt(text, position);
        valid = expected.valid;
        position += expected.length;
    }
    Require(StringUtils::ValidateUTF8Sequence(text) == valid);
    return 0;
}
