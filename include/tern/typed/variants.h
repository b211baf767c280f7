#pragma once

// Variants. Include <tern/typed/codec.h>, which has all of the codecs.

#include <tern/typed/types.h>

#include <type_traits>
#include <utility>
#include <variant>

namespace mwl::Typed {

namespace Detail {

/// Says which signature the variant that stands here has, without reading it. Outcomes: 1, `contents` is set
/// and valid until the message is read; 0, at the end of the array around it; -ENXIO, another type or nothing
/// stands here; another negative errno, sd-bus's own.
TERN_API int PeekVariant(sd_bus_message* message, const char*& contents);
/// Enters a variant whose content is of the signature `wanted`. Outcomes: as PeekVariant; -EINVAL with
/// `fault.text` when the content is another one.
TERN_API int EnterVariant(sd_bus_message* message, const char* wanted, Fault& fault);

template <class T>
int WriteInVariant(sd_bus_message* message, const T& value) {
    int result = sd_bus_message_open_container(message, 'v', Codec<T>::SIGNATURE.text);
    if (result >= 0) {
        result = Codec<T>::Write(message, value);
    }
    return result < 0 ? result : sd_bus_message_close_container(message);
}

}  // namespace Detail

/// A variant of one of these types. Read, the first alternative of its signature takes it; when there is
/// none,
/// "'d' where 'i' or 's' is wanted".
template <class First, class... More>
struct Codec<std::variant<First, More...>> : Detail::OfCode<'v'> {
    using Variant = std::variant<First, More...>;

    static int Write(sd_bus_message* message, const Variant& value) {
        return std::visit([&](const auto& content) { return Detail::WriteInVariant(message, content); },
                          value);
    }

    static int Read(sd_bus_message* message, Variant& value, Fault& fault) {
        const char* contents = nullptr;
        int result = Detail::PeekVariant(message, contents);
        if (result <= 0) {
            return result;
        }
        const bool isFound = TryAlternative<First>(message, contents, value, result, fault) ||
                             (TryAlternative<More>(message, contents, value, result, fault) || ...);
        return isFound ? result : fault.WrongType(contents, WANTED.text);
    }

private:
    static constexpr auto WANTED =
        (Codec<First>::SIGNATURE + ... + (Text("' or '") + Codec<More>::SIGNATURE));

    template <class T>
    static bool TryAlternative(sd_bus_message* message, const char* contents, Variant& value, int& result,
                               Fault& fault) {
        if (Codec<T>::SIGNATURE.View() != contents) {
            return false;
        }
        result = sd_bus_message_enter_container(message, 'v', Codec<T>::SIGNATURE.text);
        if (result >= 0) {
            result = Codec<T>::Read(message, value.template emplace<T>(), fault);
        }
        if (result >= 0) {
            result = sd_bus_message_exit_container(message);
        }
        return true;
    }
};
/// As one of its alternatives does.
template <class... T>
inline constexpr bool BORROWS<std::variant<T...>> = (BORROWS<T> || ...);

}  // namespace mwl::Typed
