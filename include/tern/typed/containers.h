#pragma once

// Arrays and dictionaries. Include <tern/typed/codec.h>, which has all of the codecs.

#include <tern/typed/types.h>

#include <array>
#include <iterator>
#include <map>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace mwl::Typed {

namespace Detail {

/// An array of fixed-size elements, as it lies in the message. From a sender of the other byte order its
/// elements are put into `swapped` instead; without one (null) the array is refused. Outcomes: more than 0,
/// `data` and `size` in bytes are set; -EOPNOTSUPP with `fault.text`, refused; as Read else.
TERN_API int ReadBulk(sd_bus_message* message, char code, std::size_t elementSize, const void*& data,
                      std::size_t& size, std::string* swapped, Fault& fault);
/// Appends `count` elements in one call.
TERN_API int WriteBulk(sd_bus_message* message, char code, std::size_t elementSize, const void* data,
                       std::size_t count);
/// Opens an array that is to have `count` elements; -E2BIG when that is too many.
TERN_API int OpenArray(sd_bus_message* message, const char* contents, std::size_t count);
template <class E, class Range>
int WriteArray(sd_bus_message* message, const Range& range) {
    if constexpr (Bulk<E>) {
        return WriteBulk(message, FixedCode<E>(), sizeof(E), std::data(range), std::size(range));
    } else {
        int result = OpenArray(message, Codec<E>::SIGNATURE.text, std::size(range));
        for (auto element = range.begin(); result >= 0 && element != range.end(); ++element) {
            result = Codec<E>::Write(message, *element);
        }
        return result < 0 ? result : sd_bus_message_close_container(message);
    }
}

/// Calls `store(element)` for each.
template <class E, class Store>
int ReadElements(sd_bus_message* message, Fault& fault, Store&& store) {
    int result = sd_bus_message_enter_container(message, 'a', Codec<E>::SIGNATURE.text);
    if (result <= 0) {
        return result;
    }
    for (std::size_t index = 0;; ++index) {
        E element{};
        result = Codec<E>::Read(message, element, fault);
        if (result <= 0) {
            return result < 0 ? fault.At(index, result) : sd_bus_message_exit_container(message);
        }
        if (index >= MAX_ELEMENTS) {
            return fault.TooMany();
        }
        store(std::move(element));
    }
}

}  // namespace Detail

/// Arrays; those of fixed-size numbers in one copy, unless the sender's byte order is the other one.
template <class E, class Allocator>
struct Codec<std::vector<E, Allocator>> {
    static constexpr auto SIGNATURE = Text("a") + Codec<E>::SIGNATURE;
    static int Write(sd_bus_message* message, const std::vector<E, Allocator>& value) {
        return Detail::WriteArray<E>(message, value);
    }
    static int Read(sd_bus_message* message, std::vector<E, Allocator>& value, Fault& fault) {
        if constexpr (Detail::Bulk<E>) {
            alignas(std::uint64_t) std::string swapped;
            const void* data = nullptr;
            std::size_t size = 0;
            const int result =
                Detail::ReadBulk(message, Detail::FixedCode<E>(), sizeof(E), data, size, &swapped, fault);
            const auto* const elements = static_cast<const E*>(data);
            value.assign(elements, elements + size / sizeof(E));
            return result;
        } else {
            value.clear();
            return Detail::ReadElements<E>(message, fault,
                                           [&](E&& element) { value.push_back(std::move(element)); });
        }
    }
};
/// As its elements do.
template <class E, class Allocator>
inline constexpr bool BORROWS<std::vector<E, Allocator>> = BORROWS<E>;

/// An array of exactly N elements; from a message with another number "2 elements where 3 are wanted".
template <class E, std::size_t N>
struct Codec<std::array<E, N>> {
    static constexpr auto SIGNATURE = Text("a") + Codec<E>::SIGNATURE;
    static int Write(sd_bus_message* message, const std::array<E, N>& value) {
        return Detail::WriteArray<E>(message, value);
    }
    static int Read(sd_bus_message* message, std::array<E, N>& value, Fault& fault) {
        std::size_t count = 0;
        int result = 0;
        if constexpr (Detail::Bulk<E>) {
            std::string swapped;
            const void* data = nullptr;
            std::size_t size = 0;
            result =
                Detail::ReadBulk(message, Detail::FixedCode<E>(), sizeof(E), data, size, &swapped, fault);
            count = size / sizeof(E);
            if (result > 0 && count == N && N > 0) {
                std::memcpy(value.data(), data, size);
            }
        } else {
            result = Detail::ReadElements<E>(message, fault, [&](E&& element) {
                if (count < N) {
                    value[count] = std::move(element);
                }
                ++count;
            });
        }
        return result > 0 && count != N ? fault.WrongCount(count, N) : result;
    }
};
/// As its elements do.
template <class E, std::size_t N>
inline constexpr bool BORROWS<std::array<E, N>> = BORROWS<E>;

/// An array of fixed-size numbers without any copy: what is read points into the message. From a sender of
/// the other byte order it cannot be read: -EOPNOTSUPP.
template <Detail::Bulk E>
struct Codec<std::span<const E>> {
    static constexpr auto SIGNATURE = Text("a") + Codec<E>::SIGNATURE;
    static int Write(sd_bus_message* message, std::span<const E> value) {
        return Detail::WriteArray<E>(message, value);
    }
    static int Read(sd_bus_message* message, std::span<const E>& value, Fault& fault) {
        const void* data = nullptr;
        std::size_t size = 0;
        const int result =
            Detail::ReadBulk(message, Detail::FixedCode<E>(), sizeof(E), data, size, nullptr, fault);
        value = {static_cast<const E*>(data), size / sizeof(E)};
        return result;
    }
};
/// It points into the message.
template <class E>
inline constexpr bool BORROWS<std::span<const E>> = true;

namespace Detail {

/// Dictionaries. When a key comes twice, its last value is kept.
template <class Map>
struct MapCodec {
    using Key = typename Map::key_type;
    using Value = typename Map::mapped_type;
    static constexpr bool HAS_BASIC_KEY =
        Codec<Key>::SIGNATURE.SIZE == 1 &&
        (IsBasicCode(Codec<Key>::SIGNATURE.text[0]) ||
         Codec<Key>::SIGNATURE.text[0] == '?');  // has been reported already
    static_assert(HAS_BASIC_KEY, "the key of a D-Bus dictionary is a basic type");
    static constexpr auto CONTENTS = [] {
        if constexpr (HAS_BASIC_KEY) {
            return Codec<Key>::SIGNATURE + Codec<Value>::SIGNATURE;
        } else {
            return Text("?");  // so that no further message follows
        }
    }();
    static constexpr auto ENTRY = Text("{") + CONTENTS + Text("}");
    static constexpr auto SIGNATURE = Text("a") + ENTRY;

    static int Write(sd_bus_message* message, const Map& value) {
        int result = OpenArray(message, ENTRY.text, value.size());
        for (auto entry = value.begin(); result >= 0 && entry != value.end(); ++entry) {
            result = sd_bus_message_open_container(message, 'e', CONTENTS.text);
            if (result >= 0) {
                result = Codec<Key>::Write(message, entry->first);
            }
            if (result >= 0) {
                result = Codec<Value>::Write(message, entry->second);
            }
            if (result >= 0) {
                result = sd_bus_message_close_container(message);
            }
        }
        return result < 0 ? result : sd_bus_message_close_container(message);
    }

    static int Read(sd_bus_message* message, Map& value, Fault& fault) {
        value.clear();
        int result = sd_bus_message_enter_container(message, 'a', ENTRY.text);
        if (result <= 0) {
            return result;
        }
        for (std::size_t index = 0;; ++index) {
            result = sd_bus_message_enter_container(message, 'e', CONTENTS.text);
            if (result <= 0) {
                return result < 0 ? result : sd_bus_message_exit_container(message);
            }
            if (index >= MAX_ELEMENTS) {
                return fault.TooMany();
            }
            Key key{};
            Value element{};
            result = Codec<Key>::Read(message, key, fault);
            if (result >= 0) {
                result = Codec<Value>::Read(message, element, fault);
            }
            if (result >= 0) {
                result = sd_bus_message_exit_container(message);
            }
            if (result < 0) {
                return fault.At(index, result);
            }
            value.insert_or_assign(std::move(key), std::move(element));
        }
    }
};

}  // namespace Detail

template <class K, class V, class... More>
struct Codec<std::map<K, V, More...>> : Detail::MapCodec<std::map<K, V, More...>> {};
/// As its keys or its values do.
template <class K, class V, class... More>
inline constexpr bool BORROWS<std::map<K, V, More...>> = BORROWS<K> || BORROWS<V>;

template <class K, class V, class... More>
struct Codec<std::unordered_map<K, V, More...>> : Detail::MapCodec<std::unordered_map<K, V, More...>> {};
/// As its keys or its values do.
template <class K, class V, class... More>
inline constexpr bool BORROWS<std::unordered_map<K, V, More...>> = BORROWS<K> || BORROWS<V>;

}  // namespace mwl::Typed
