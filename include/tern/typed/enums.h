#pragma once

// Enumerations. Include <tern/typed/codec.h>, which has all of the codecs.

#include <tern/typed/types.h>

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

namespace mwl::Typed {

/// One value of an enumeration that goes over the bus as text.
template <class E>
struct EnumText {
    /// In the program.
    E value;
    /// On the bus.
    const char* text;
};
/// So that `EnumText{Mode::On, "on"}` does without the type.
template <class E>
EnumText(E, const char*) -> EnumText<E>;

namespace Detail {

template <class E>
concept DescribedEnum = std::is_enum_v<E> && requires(E value) {
    DBusEnum(value);
};

}  // namespace Detail

/// Enumerations that are described, in their own namespace, by a function that is never called at run time:
///
///     // as integers
///     constexpr auto DBusEnum(Mode) { return std::array{Mode::Off, Mode::On}; }
///     // as text
///     constexpr auto DBusEnum(Speed) {
///         return std::array{EnumText{Speed::Slow, "slow"}, EnumText{Speed::Fast, "fast"}};
///     }
///
/// The integer is the underlying type's. Values outside the description are refused, in both directions:
/// "7 is not one of its values".
template <Detail::DescribedEnum E>
struct Codec<E> {
    static constexpr auto VALUES = DBusEnum(E());
    static constexpr bool AS_TEXT = requires { VALUES[0].text; };
    using OnTheBus = std::conditional_t<AS_TEXT, std::string_view, std::underlying_type_t<E>>;
    static constexpr auto SIGNATURE = Codec<OnTheBus>::SIGNATURE;

    static int Write(sd_bus_message* message, E value) {
        for (const auto& known : VALUES) {
            if constexpr (AS_TEXT) {
                if (known.value == value) {
                    return AppendText(message, 's', known.text);
                }
            } else if (known == value) {
                return Codec<OnTheBus>::Write(message, static_cast<OnTheBus>(value));
            }
        }
        return -EINVAL;
    }

    static int Read(sd_bus_message* message, E& value, Fault& fault) {
        OnTheBus found{};
        const int result = Codec<OnTheBus>::Read(message, found, fault);
        if (result <= 0) {
            return result;
        }
        for (const auto& known : VALUES) {
            if constexpr (AS_TEXT) {
                if (known.text == found) {
                    value = known.value;
                    return result;
                }
            } else if (static_cast<OnTheBus>(known) == found) {
                value = known;
                return result;
            }
        }
        if constexpr (AS_TEXT) {
            return fault.NotAValue(found);
        } else if constexpr (std::is_signed_v<OnTheBus>) {
            return fault.NotAValue(static_cast<std::int64_t>(found));
        } else {
            return fault.NotAValue(static_cast<std::uint64_t>(found));
        }
    }
};

}  // namespace mwl::Typed
