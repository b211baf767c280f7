#pragma once

// Numbers and text. Include <tern/typed/codec.h>, which has all of the codecs.

#include <systemd/sd-bus.h>
#include <tern/foundation/api.h>
#include <tern/typed/fault.h>
#include <tern/typed/text.h>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace mwl::Typed {

/// Most elements of one container, sent or received; also of everything in one Any together. Far above honest
/// use: it bounds what a message of 128 MiB can make a service allocate.
inline constexpr std::size_t MAX_ELEMENTS = std::size_t{1} << 20;

template <class... T>
struct Results;

namespace Detail {

template <class T>
inline constexpr bool IS_OPTIONAL = false;
template <class T>
inline constexpr bool IS_OPTIONAL<std::optional<T>> = true;
template <class T>
inline constexpr bool IS_SPAN = false;
template <class T, std::size_t N>
inline constexpr bool IS_SPAN<std::span<T, N>> = true;
template <class T>
inline constexpr bool IS_RESULTS = false;
template <class... T>
inline constexpr bool IS_RESULTS<Results<T...>> = true;

/// Why a type has no codec. Exactly one reason each, so that the compiler says one thing.
enum class Reason { Float, Char, Optional, Pointer, Enum, Span, Several, Other };
template <class T>
consteval Reason ReasonAgainst() {
    if constexpr (std::is_same_v<T, float> || std::is_same_v<T, long double>) {
        return Reason::Float;
    } else if constexpr (std::is_same_v<T, char> || std::is_same_v<T, signed char> ||
                         std::is_same_v<T, wchar_t> || std::is_same_v<T, char8_t> ||
                         std::is_same_v<T, char16_t> || std::is_same_v<T, char32_t>) {
        return Reason::Char;
    } else if constexpr (IS_OPTIONAL<T>) {
        return Reason::Optional;
    } else if constexpr (std::is_pointer_v<T> || std::is_member_pointer_v<T> || std::is_null_pointer_v<T>) {
        return Reason::Pointer;
    } else if constexpr (std::is_enum_v<T>) {
        return Reason::Enum;
    } else if constexpr (IS_SPAN<T>) {
        return Reason::Span;
    } else if constexpr (IS_RESULTS<T>) {
        return Reason::Several;
    } else {
        return Reason::Other;
    }
}

}  // namespace Detail

/// How a C++ type is written to and read from a message. The types of the table in <tern/typed/codec.h> have
/// one; a type of one's own gets one by a specialisation, in namespace mwl::Typed, with these three members:
///
///     template <>
///     struct Codec<std::chrono::seconds> {
///         static constexpr Text SIGNATURE = "x";    // of exactly one complete type
///         static int Write(sd_bus_message* message, const std::chrono::seconds& value);
///         static int Read(sd_bus_message* message, std::chrono::seconds& value, Fault& fault);
///     };
///
/// It can then be used in containers, structures and fields as well. Where a type is only sent, Read may be
/// missing. For the outcomes, which are every codec's, see the functions Write and Read.
///
/// Instantiated for a type that D-Bus cannot carry: it does not compile, with one message.
template <class T>
struct Codec {
    /// Why there is no codec.
    static constexpr auto WHY = Detail::ReasonAgainst<T>();
    static_assert(WHY != Detail::Reason::Float, "D-Bus has no float and no long double: use double");
    static_assert(WHY != Detail::Reason::Char,
                  "D-Bus has no characters: use std::uint8_t for a number, std::string for text");
    static_assert(
        WHY != Detail::Reason::Optional,
        "D-Bus has no null: std::optional is for the fields of an aggregate with DBusFields() only");
    static_assert(WHY != Detail::Reason::Pointer, "D-Bus carries values, no pointers");
    static_assert(WHY != Detail::Reason::Enum,
                  "this enumeration is not described: declare constexpr auto DBusEnum(E) beside it");
    static_assert(WHY != Detail::Reason::Span,
                  "std::span<const T> borrows an array of fixed-size numbers (not bool): use std::vector");
    static_assert(WHY != Detail::Reason::Several,
                  "Results<...> are several output arguments, not one value: use std::tuple");
    static_assert(WHY != Detail::Reason::Other, "D-Bus cannot carry this type: there is no Codec<T> for it");

    // So that no further message follows.
    /// Of no type.
    static constexpr Text<1> SIGNATURE = "?";
    /// Never called.
    static int Write(sd_bus_message*, const T&) { return -EOPNOTSUPP; }
    /// Never called.
    static int Read(sd_bus_message*, T&, Fault&) { return -EOPNOTSUPP; }
};

/// Whether values of this type point into the message that they were read from, and so end with its handler.
/// A codec of one's own for such a type specialises it to true.
template <class T>
inline constexpr bool BORROWS = false;

/// Appends `value`. The message is not sealed; one thread at a time.
///
/// Outcomes:
/// - 0 or more: appended.
/// - -EINVAL: the value is not one of its type: text that is not UTF-8 or has a null character in it, an enum
///   outside its description, an empty Any, an ObjectPath that was moved from, a null `const char*`, no
///   descriptor.
/// - -E2BIG: a container of more than MAX_ELEMENTS.
/// - another negative errno: sd-bus's own, for example -EBADF for a descriptor that is not open.
///
/// After a failure the message is half written: it is to be dropped.
template <class T>
int Write(sd_bus_message* message, const T& value) {
    return Codec<T>::Write(message, value);
}

/// Reads the value at the message's position. The message is sealed; one thread at a time.
///
/// Outcomes:
/// - more than 0: read, the position is after it.
/// - 0: at the end of the array that is being read; nothing is read.
/// - -EINVAL with `fault.text`: the message's value is not one of this type.
/// - -EOPNOTSUPP with `fault.text`: an array of the other byte order was to be borrowed.
/// - -ENXIO: another type stands here, or nothing. -EBADMSG: malformed. Another negative errno: sd-bus's own.
/// - std::bad_alloc, or what a type's own operations throw, passes through.
///
/// After a failure `value` can be destroyed or assigned to, what it is else is not said; the position is
/// somewhere in the value: the message is to be given up.
template <class T>
int Read(sd_bus_message* message, T& value, Fault& fault) {
    return Codec<T>::Read(message, value, fault);
}

/// Whether the text can be sent: UTF-8 as sd-bus understands it, which refuses surrogates and the code points
/// that are reserved as no characters, without a null character.
TERN_API bool IsText(std::string_view text) noexcept;

/// Appends text of the type `code`: 's', 'o' or 'g'. Nothing is appended unless the text is well-formed,
/// because a message bus ends the connection of whoever sends other text.
///
/// Outcomes: 0 or more, appended; -EINVAL, not IsText, or no object path or signature; -ENOMEM; another
/// negative errno, sd-bus's own.
TERN_API int AppendText(sd_bus_message* message, char code, std::string_view text);

namespace Detail {

/// Reads text of the type `code` into `text`, which is valid as long as the message.
TERN_API int ReadText(sd_bus_message* message, char code, std::string_view& text);
/// As above, with a copy.
TERN_API int ReadText(sd_bus_message* message, char code, std::string& text);

template <class T>
concept PlainInteger =
    std::integral<T> && !std::is_same_v<T, bool> && !std::is_same_v<T, char> &&
    !std::is_same_v<T, signed char> && !std::is_same_v<T, wchar_t> && !std::is_same_v<T, char8_t> &&
    !std::is_same_v<T, char16_t> && !std::is_same_v<T, char32_t>;

/// Arrays of these lie in a message as they lie in memory.
template <class T>
concept Bulk = PlainInteger<T> || std::is_same_v<T, double>;

template <Bulk T>
consteval char FixedCode() {
    if (std::is_same_v<T, double>) {
        return 'd';
    }
    switch (sizeof(T)) {
        case 1:
            return 'y';
        case 2:
            return std::is_signed_v<T> ? 'n' : 'q';
        case 4:
            return std::is_signed_v<T> ? 'i' : 'u';
        default:
            return std::is_signed_v<T> ? 'x' : 't';
    }
}

/// The signature of a type with a one-character code.
template <char CODE>
struct OfCode {
    static constexpr Text<1> SIGNATURE = {{CODE, '\0'}};
};

}  // namespace Detail

/// Integers by size and sign, and double.
template <Detail::Bulk T>
struct Codec<T> : Detail::OfCode<Detail::FixedCode<T>()> {
    static int Write(sd_bus_message* message, T value) {
        return sd_bus_message_append_basic(message, Detail::FixedCode<T>(), &value);
    }
    static int Read(sd_bus_message* message, T& value, Fault&) {
        return sd_bus_message_read_basic(message, Detail::FixedCode<T>(), &value);
    }
};

template <>
struct Codec<bool> : Detail::OfCode<'b'> {
    static int Write(sd_bus_message* message, bool value) {
        const int number = value ? 1 : 0;
        return sd_bus_message_append_basic(message, 'b', &number);
    }
    static int Read(sd_bus_message* message, bool& value, Fault&) {
        int number = 0;
        const int result = sd_bus_message_read_basic(message, 'b', &number);
        value = number != 0;
        return result;
    }
};

template <>
struct Codec<std::string> : Detail::OfCode<'s'> {
    static int Write(sd_bus_message* message, const std::string& value) {
        return AppendText(message, 's', value);
    }
    static int Read(sd_bus_message* message, std::string& value, Fault&) {
        return Detail::ReadText(message, 's', value);
    }
};

/// The result points into the message.
template <>
struct Codec<std::string_view> : Detail::OfCode<'s'> {
    static int Write(sd_bus_message* message, std::string_view value) {
        return AppendText(message, 's', value);
    }
    static int Read(sd_bus_message* message, std::string_view& value, Fault&) {
        return Detail::ReadText(message, 's', value);
    }
};
/// It points into the message.
template <>
inline constexpr bool BORROWS<std::string_view> = true;

/// To be sent only.
template <>
struct Codec<const char*> : Detail::OfCode<'s'> {
    static int Write(sd_bus_message* message, const char* value) {
        return value == nullptr ? -EINVAL : AppendText(message, 's', value);
    }
};
/// A pointer borrows.
template <>
inline constexpr bool BORROWS<const char*> = true;

/// A literal, up to its first null character; to be sent only.
template <std::size_t N>
struct Codec<char[N]> : Codec<const char*> {
    static int Write(sd_bus_message* message, const char (&value)[N]) {
        return AppendText(message, 's', std::string_view(value, strnlen(value, N)));
    }
};

}  // namespace mwl::Typed
