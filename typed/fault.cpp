#include <tern/typed/fault.h>

#include <tern/typed/basic.h>

#include <array>
#include <charconv>
#include <cstring>
#include <initializer_list>

namespace mwl::Typed {

namespace {

/// Of what a peer wrote; the rest of it does not help anybody.
constexpr std::size_t LONGEST_PART = 60;

/// As much of valid UTF-8 as fits into `room` bytes.
std::string_view Cut(std::string_view text, std::size_t room) {
    if (text.size() <= room) {
        return text;
    }
    while (room > 0 && (static_cast<unsigned char>(text[room]) & 0xc0) == 0x80) {
        --room;
    }
    return text.substr(0, room);
}

template <std::size_t N>
void Set(char (&target)[N], std::initializer_list<std::string_view> parts) {
    std::size_t used = 0;
    for (const std::string_view part : parts) {
        const std::string_view fits = Cut(part, N - 1 - used);
        for (const char c : fits) {
            const bool isControl = static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
            target[used++] = isControl ? '?' : c;
        }
        if (fits.size() < part.size()) {
            break;
        }
    }
    target[used] = '\0';
}

class Number {
public:
    template <class T>
    explicit Number(T value) {
        const std::to_chars_result result = std::to_chars(mText.data(), mText.data() + mText.size(), value);
        mSize = static_cast<std::size_t>(result.ptr - mText.data());
    }
    operator std::string_view() const { return {mText.data(), mSize}; }

private:
    std::array<char, 24> mText;  // longer than every 64-bit number
    std::size_t mSize;
};

}  // namespace

int Fault::Refuse(std::string_view reason, int error) noexcept {
    Set(text, {reason});
    return error;
}

int Fault::WrongType(const char* found, const char* wanted) noexcept {
    Set(text, {"'", Cut(found, LONGEST_PART), "' where '", Cut(wanted, LONGEST_PART), "' is wanted"});
    return -EINVAL;
}

int Fault::WrongCount(std::size_t found, std::size_t wanted) noexcept {
    Set(text, {Number(found), found == 1 ? " element where " : " elements where ", Number(wanted),
               wanted == 1 ? " is wanted" : " are wanted"});
    return -EINVAL;
}

int Fault::TooMany() noexcept {
    Set(text, {"more than ", Number(MAX_ELEMENTS), " elements"});
    return -EINVAL;
}

int Fault::NotAValue(std::string_view value) noexcept {
    Set(text, {"'", Cut(value, LONGEST_PART), "' is not one of its values"});
    return -EINVAL;
}

int Fault::NotAValue(std::int64_t value) noexcept {
    Set(text, {Number(value), " is not one of its values"});
    return -EINVAL;
}

int Fault::NotAValue(std::uint64_t value) noexcept {
    Set(text, {Number(value), " is not one of its values"});
    return -EINVAL;
}

int Fault::Missing(std::string_view key) noexcept {
    Set(text, {"the key '", Cut(key, LONGEST_PART), "' is missing"});
    return -EINVAL;
}

int Fault::Unknown(std::string_view key) noexcept {
    Set(text, {"the key '", Cut(key, LONGEST_PART), "' is unknown"});
    return -EINVAL;
}

int Fault::Below(std::string_view key, int result) noexcept {
    char inner[sizeof where];
    std::memcpy(inner, where, sizeof where);
    Set(where, {".", key, inner});
    return result;
}

int Fault::At(std::size_t index, int result) noexcept {
    char inner[sizeof where];
    std::memcpy(inner, where, sizeof where);
    Set(where, {"[", Number(index), "]", inner});
    return result;
}

}  // namespace mwl::Typed
