#pragma once

// The type in which a client keeps a value that a contract names. Include <tern/typed/proxy.h>.

#include <tern/typed/codec.h>

#include <array>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

namespace mwl::Typed {

namespace Detail {

template <class T>
struct OwnedOf {
    using Type = T;
};
template <>
struct OwnedOf<std::string_view> {
    using Type = std::string;
};
template <>
struct OwnedOf<const char*> {
    using Type = std::string;
};
template <std::size_t N>
struct OwnedOf<char[N]> {
    using Type = std::string;
};
template <>
struct OwnedOf<BorrowedFd> {
    using Type = OwnedFd;
};
template <class T>
struct OwnedOf<Borrow<T>> : OwnedOf<T> {};
template <class E>
struct OwnedOf<std::span<const E>> {
    using Type = std::vector<E>;
};
template <class E>
struct OwnedOf<std::vector<E>> {
    using Type = std::vector<typename OwnedOf<E>::Type>;
};
template <class E, std::size_t N>
struct OwnedOf<std::array<E, N>> {
    using Type = std::array<typename OwnedOf<E>::Type, N>;
};
// A container with an order or a hash of one's own is left as it is.
template <class K, class V>
struct OwnedOf<std::map<K, V>> {
    using Type = std::map<typename OwnedOf<K>::Type, typename OwnedOf<V>::Type>;
};
template <class K, class V>
struct OwnedOf<std::unordered_map<K, V>> {
    using Type = std::unordered_map<typename OwnedOf<K>::Type, typename OwnedOf<V>::Type>;
};
template <class... T>
struct OwnedOf<std::tuple<T...>> {
    using Type = std::tuple<typename OwnedOf<T>::Type...>;
};
template <class A, class B>
struct OwnedOf<std::pair<A, B>> {
    using Type = std::pair<typename OwnedOf<A>::Type, typename OwnedOf<B>::Type>;
};
template <class... T>
struct OwnedOf<std::variant<T...>> {
    using Type = std::variant<typename OwnedOf<T>::Type...>;
};
template <class... T>
struct OwnedOf<Results<T...>> {
    using Type = Results<typename OwnedOf<T>::Type...>;
};

template <class T>
inline constexpr bool OWNS = !BORROWS<T>;
template <>
inline constexpr bool OWNS<void> = true;
template <class... T>
inline constexpr bool OWNS<Results<T...>> = (!BORROWS<T> && ...);

template <class T>
struct CheckedOwned {
    using Type = typename OwnedOf<std::remove_cvref_t<T>>::Type;
    static_assert(OWNS<Type>,
                  "this type points into the message that it comes with, and would outlive it: the contract "
                  "needs one that owns what it holds");
};

}  // namespace Detail

/// The type in which a client gets what a contract calls T: the same D-Bus type, and it owns
/// what it holds. `std::string` for `std::string_view`, `std::vector` for `std::span`, `OwnedFd` for
/// `BorrowedFd`, also inside of containers, tuples and Results; other types as they are.
template <class T>
using Owned = typename Detail::CheckedOwned<T>::Type;

}  // namespace mwl::Typed
