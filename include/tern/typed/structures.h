#pragma once

// Structures. Include <tern/typed/codec.h>, which has all of the codecs.

#include <tern/typed/types.h>

#include <cstddef>
#include <tuple>
#include <type_traits>
#include <utility>

namespace mwl::Typed {

namespace Detail {

/// The codec of a structure, over references to its fields.
template <class... T>
struct StructureCodec {
    static_assert(sizeof...(T) > 0, "D-Bus has no empty structure");
    // Without fields as of a type without a codec, so that no further message follows.
    static constexpr auto EMPTY = [] {
        if constexpr (sizeof...(T) == 0) {
            return Text("?");
        } else {
            return Text<0>();
        }
    }();
    static constexpr auto CONTENTS = (EMPTY + ... + Codec<T>::SIGNATURE);
    static constexpr auto SIGNATURE = Text("(") + CONTENTS + Text(")");

    static int Write(sd_bus_message* message, const T&... value) {
        int result = sd_bus_message_open_container(message, 'r', CONTENTS.text);
        static_cast<void>(((result >= 0) && ... && ((result = Codec<T>::Write(message, value)) >= 0)));
        return result < 0 ? result : sd_bus_message_close_container(message);
    }
    static int Read(sd_bus_message* message, Fault& fault, T&... value) {
        int result = sd_bus_message_enter_container(message, 'r', CONTENTS.text);
        if (result <= 0) {
            return result;
        }
        static_cast<void>((((result = Codec<T>::Read(message, value, fault)) >= 0) && ...));
        return result < 0 ? result : sd_bus_message_exit_container(message);
    }
};

/// Stands for a value of any type where the number of an aggregate's fields is found out; never created.
struct Whatever {
    template <class T>
    operator T() const;
};

inline constexpr std::size_t MOST_FIELDS = 16;

/// Counts up to one more than MOST_FIELDS.
template <class T, class... Values>
consteval std::size_t CountFields() {
    if constexpr (sizeof...(Values) <= MOST_FIELDS && requires { T{Values{}..., Whatever{}}; }) {
        return CountFields<T, Values..., Whatever>();
    } else {
        return sizeof...(Values);
    }
}

/// Calls `function` with references to the fields of an aggregate and returns what it returns.
template <class T, class Function>
constexpr decltype(auto) WithFields(T& value, Function&& function) {
    constexpr std::size_t COUNT = CountFields<std::remove_const_t<T>>();
    if constexpr (COUNT == 1) {
        auto& [a] = value;
        return function(a);
    } else if constexpr (COUNT == 2) {
        auto& [a, b] = value;
        return function(a, b);
    } else if constexpr (COUNT == 3) {
        auto& [a, b, c] = value;
        return function(a, b, c);
    } else if constexpr (COUNT == 4) {
        auto& [a, b, c, d] = value;
        return function(a, b, c, d);
    } else if constexpr (COUNT == 5) {
        auto& [a, b, c, d, e] = value;
        return function(a, b, c, d, e);
    } else if constexpr (COUNT == 6) {
        auto& [a, b, c, d, e, f] = value;
        return function(a, b, c, d, e, f);
    } else if constexpr (COUNT == 7) {
        auto& [a, b, c, d, e, f, g] = value;
        return function(a, b, c, d, e, f, g);
    } else if constexpr (COUNT == 8) {
        auto& [a, b, c, d, e, f, g, h] = value;
        return function(a, b, c, d, e, f, g, h);
    } else if constexpr (COUNT == 9) {
        auto& [a, b, c, d, e, f, g, h, i] = value;
        return function(a, b, c, d, e, f, g, h, i);
    } else if constexpr (COUNT == 10) {
        auto& [a, b, c, d, e, f, g, h, i, j] = value;
        return function(a, b, c, d, e, f, g, h, i, j);
    } else if constexpr (COUNT == 11) {
        auto& [a, b, c, d, e, f, g, h, i, j, k] = value;
        return function(a, b, c, d, e, f, g, h, i, j, k);
    } else if constexpr (COUNT == 12) {
        auto& [a, b, c, d, e, f, g, h, i, j, k, l] = value;
        return function(a, b, c, d, e, f, g, h, i, j, k, l);
    } else if constexpr (COUNT == 13) {
        auto& [a, b, c, d, e, f, g, h, i, j, k, l, m] = value;
        return function(a, b, c, d, e, f, g, h, i, j, k, l, m);
    } else if constexpr (COUNT == 14) {
        auto& [a, b, c, d, e, f, g, h, i, j, k, l, m, n] = value;
        return function(a, b, c, d, e, f, g, h, i, j, k, l, m, n);
    } else if constexpr (COUNT == 15) {
        auto& [a, b, c, d, e, f, g, h, i, j, k, l, m, n, o] = value;
        return function(a, b, c, d, e, f, g, h, i, j, k, l, m, n, o);
    } else if constexpr (COUNT == 16) {
        auto& [a, b, c, d, e, f, g, h, i, j, k, l, m, n, o, p] = value;
        return function(a, b, c, d, e, f, g, h, i, j, k, l, m, n, o, p);
    }
}

template <class... T>
struct TypeList {
    using StructureCodecOf = StructureCodec<std::remove_cvref_t<T>...>;
    static constexpr bool IsBorrowed() { return (BORROWS<std::remove_cvref_t<T>> || ...); }
};

struct ListTypes {
    template <class... T>
    constexpr TypeList<T...> operator()(T&...) const {
        return {};
    }
};

/// The types of an aggregate's fields.
template <class T>
using FieldTypes = decltype(WithFields(std::declval<T&>(), ListTypes()));
template <class T>
using AggregateCodec = typename FieldTypes<T>::StructureCodecOf;

/// Has `static constexpr auto DBusFields()`: a dictionary, see <tern/typed/fields.h>.
template <class T>
concept DescribedFields = requires {
    T::DBusFields();
};

template <class T>
concept Aggregate = std::is_aggregate_v<T> && std::is_class_v<T> && !DescribedFields<T> && !requires {
    std::tuple_size<T>::value;
};
template <class T>
concept DecomposableAggregate = Aggregate<T> && CountFields<T>()
>= 1 && CountFields<T>() <= MOST_FIELDS;

}  // namespace Detail

template <class... T>
struct Codec<std::tuple<T...>> {
    using Fields = Detail::StructureCodec<T...>;
    static constexpr auto SIGNATURE = Fields::SIGNATURE;
    static int Write(sd_bus_message* message, const std::tuple<T...>& value) {
        return std::apply([&](const T&... field) { return Fields::Write(message, field...); }, value);
    }
    static int Read(sd_bus_message* message, std::tuple<T...>& value, Fault& fault) {
        return std::apply([&](T&... field) { return Fields::Read(message, fault, field...); }, value);
    }
};
/// As one of its fields does.
template <class... T>
inline constexpr bool BORROWS<std::tuple<T...>> = (BORROWS<T> || ...);

template <class A, class B>
struct Codec<std::pair<A, B>> {
    using Fields = Detail::StructureCodec<A, B>;
    static constexpr auto SIGNATURE = Fields::SIGNATURE;
    static int Write(sd_bus_message* message, const std::pair<A, B>& value) {
        return Fields::Write(message, value.first, value.second);
    }
    static int Read(sd_bus_message* message, std::pair<A, B>& value, Fault& fault) {
        return Fields::Read(message, fault, value.first, value.second);
    }
};
/// As one of its fields does.
template <class A, class B>
inline constexpr bool BORROWS<std::pair<A, B>> = BORROWS<A> || BORROWS<B>;

/// Aggregates of 1 to 16 fields, in the order of their declaration: structures without base classes,
/// constructors, private members or C arrays. No description is needed. Every other class needs a Codec of
/// its own.
template <Detail::Aggregate T>
struct Codec<T> {
    static_assert(Detail::DecomposableAggregate<T>,
                  "a structure on D-Bus is an aggregate of 1 to 16 fields, each of a type that can be read");
    static constexpr Text<1> SIGNATURE = "?";
    static int Write(sd_bus_message*, const T&) { return -EOPNOTSUPP; }
    static int Read(sd_bus_message*, T&, Fault&) { return -EOPNOTSUPP; }
};
template <Detail::DecomposableAggregate T>
struct Codec<T> {
    using Fields = Detail::AggregateCodec<T>;
    static constexpr auto SIGNATURE = Fields::SIGNATURE;
    static int Write(sd_bus_message* message, const T& value) {
        return Detail::WithFields(value,
                                  [&](const auto&... field) { return Fields::Write(message, field...); });
    }
    static int Read(sd_bus_message* message, T& value, Fault& fault) {
        return Detail::WithFields(value,
                                  [&](auto&... field) { return Fields::Read(message, fault, field...); });
    }
};
template <Detail::DecomposableAggregate T>
inline constexpr bool BORROWS<T> = Detail::FieldTypes<T>::IsBorrowed();

}  // namespace mwl::Typed
