#pragma once

// A value of any type. Include <tern/typed/codec.h>, which has all of the codecs.

#include <tern/typed/containers.h>
#include <tern/typed/types.h>
#include <tern/typed/variants.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace mwl::Typed {

class Any;

/// Appends `any` as a variant. Outcomes: as Write; -EINVAL for an empty one.
TERN_API int WriteAny(sd_bus_message* message, const Any& any);
/// Reads a variant, whatever is in it. Outcomes: as Read; -EINVAL with `fault.text` when a file descriptor is
/// in it, more than Any::MAX_NESTING containers inside each other or more than MAX_ELEMENTS values. `any` is
/// only changed when all of it was read.
TERN_API int ReadAny(sd_bus_message* message, Any& any, Fault& fault);

/// Appends the value of `any` as one of the type `type`, which is one complete type: what `any` is; or "v",
/// and then a value of any type is put into a variant, one that is a variant already being left as it is.
/// Outcomes: as Write; -EINVAL for an empty one, and with `fault.text` when it is of another type.
TERN_API int WriteAnyAs(sd_bus_message* message, std::string_view type, const Any& any, Fault& fault);
/// Reads what stands from here to the end of the message, each value as it is: of type "v" a variant, not
/// what is in it. Outcomes: as Write; -EINVAL with `fault.text` as of ReadAny, whose limits hold for all of
/// them together. `values` is only changed when all of it was read; otherwise `index` is that of the value
/// that could not be.
TERN_API int ReadAnyEach(sd_bus_message* message, std::vector<Any>& values, Fault& fault, unsigned& index);

/// Keeps the content of a variant of any type but file descriptors, independent of its message: for values
/// whose types a service does not know before, for example std::map<std::string, Any> for a{sv}.
///
///     Any level = Any::From(std::uint32_t{5});
///     std::optional<std::uint32_t> number = level.As<std::uint32_t>();    // 5
///     std::optional<std::string> text = level.As<std::string>();          // nothing: another type
///
/// A variant within a variant stays one. Arrays of fixed-size numbers are kept as they lie in the message, so
/// that a megabyte stays a megabyte. A value: copies are independent, one thread at a time.
class Any {
public:
    /// Most containers (arrays, structures, dictionary entries, variants) inside each other, the variant
    /// around the whole not counted.
    static constexpr unsigned MAX_NESTING = 32;

    /// Empty: no value, no signature. An empty one cannot be sent.
    TERN_API Any() noexcept;
    TERN_API Any(const Any& other);                 ///< std::bad_alloc when memory is short
    TERN_API Any(Any&& other) noexcept;             ///< leaves the other one empty
    TERN_API Any& operator=(const Any& other);      ///< as the copy; then it stays as it was
    TERN_API Any& operator=(Any&& other) noexcept;  ///< as the move
    TERN_API ~Any();

    /// Of a typed value. Empty when D-Bus cannot carry it, see Write, and beyond the limits of ReadAny. Basic
    /// types are taken over directly; for every other one a message is built and read. std::bad_alloc when
    /// memory is short.
    template <class T>
    static Any From(const T& value) {
        static_assert(SIGNATURE<T>.View().find('h') == std::string_view::npos,
                      "Any keeps no file descriptors");
        if constexpr (std::is_same_v<T, bool> || std::is_unsigned_v<T>) {
            return FromNumber(SIGNATURE<T>.text, std::uint64_t{value});
        } else if constexpr (Detail::Bulk<T> && std::is_integral_v<T>) {
            return FromNumber(SIGNATURE<T>.text, std::int64_t{value});
        } else if constexpr (std::is_same_v<T, double>) {
            return FromNumber(SIGNATURE<T>.text, value);
        } else if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, std::string_view>) {
            return FromText(value);
        } else {
            return FromMessage(SIGNATURE<T>.text, &value, [](sd_bus_message* message, const void* typed) {
                return Codec<T>::Write(message, *static_cast<const T*>(typed));
            });
        }
    }

    /// Of parts that are not known before: the elements of an array, the fields of a structure, the key and
    /// the value of a dictionary's entry ("{sv}", to be a part of "a{sv}"), the content of a variant. A part
    /// is of the type that `signature` has in its place; where that is "v" any value is put into a variant.
    /// Empty when something does not fit, when `signature` is none of these, and beyond the limits of
    /// ReadAny. std::bad_alloc when memory is short.
    ///
    ///     Any::Compose("a{sv}", {Any::Compose("{sv}", {Any::From(std::string("Level")), Any::From(5)})})
    TERN_API static Any Compose(std::string_view signature, const std::vector<Any>& parts);

    /// The value, when it is of exactly the type T. Nothing when it is of another one, or not one of T's
    /// values (an enum, the number of elements, missing keys). A std::string_view is valid as long as this
    /// object is not changed. A message is built where From builds one.
    template <class T>
    std::optional<T> As() const {
        static_assert(std::is_same_v<T, std::string_view> || !BORROWS<T>,
                      "the value of an Any cannot be borrowed: use a type that keeps it");
        if (mSignature != SIGNATURE<T>.View()) {
            return std::nullopt;
        }
        if constexpr (std::is_same_v<T, bool>) {
            return *std::get_if<std::uint64_t>(&mValue) != 0;
        } else if constexpr (std::is_unsigned_v<T>) {
            return static_cast<T>(*std::get_if<std::uint64_t>(&mValue));
        } else if constexpr (Detail::Bulk<T> && std::is_integral_v<T>) {
            return static_cast<T>(*std::get_if<std::int64_t>(&mValue));
        } else if constexpr (std::is_same_v<T, double>) {
            return *std::get_if<double>(&mValue);
        } else if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, std::string_view>) {
            return T(*std::get_if<std::string>(&mValue));
        } else {
            std::optional<T> result(std::in_place);
            if (!ToMessage(&*result, [](sd_bus_message* message, void* typed) {
                    Fault fault;
                    return Codec<T>::Read(message, *static_cast<T*>(typed), fault);
                })) {
                result.reset();
            }
            return result;
        }
    }

    /// Whether there is no value.
    bool IsEmpty() const { return mSignature.empty(); }
    /// Of the content: one complete type; "{..}" for an entry of a dictionary that At gave; empty when there
    /// is none.
    const std::string& GetSignature() const { return mSignature; }

    /// Elements of an array, fields of a structure, 2 of a dictionary's entry, 1 of a variant; 0 of others.
    TERN_API std::size_t Size() const;
    /// A copy of the element `index`, counted from 0; empty from Size() on.
    TERN_API Any At(std::size_t index) const;

    /// For people and logs: `[1, 2]`, `("text", true)`, `{"Level": <5>}` with <> around what is in a variant.
    /// Text is quoted; control characters, '"' and '\\' in it have a '\\' in front. Empty for an empty one.
    TERN_API std::string ToText() const;

    /// Equal in signature and value, elements in the same order, also those of a dictionary. Numbers compare
    /// as numbers, so that a double that is no number is not even equal to itself.
    TERN_API bool operator==(const Any& other) const;

private:
    friend int WriteAny(sd_bus_message* message, const Any& any);
    friend int ReadAny(sd_bus_message* message, Any& any, Fault& fault);
    friend int WriteAnyAs(sd_bus_message* message, std::string_view type, const Any& any, Fault& fault);
    friend int ReadAnyEach(sd_bus_message* message, std::vector<Any>& values, Fault& fault, unsigned& index);
    class Reader;
    class Writer;
    class Printer;

    /// Numbers by sign, bool as 0 or 1; text; the bytes of an array of fixed-size numbers; or what is in it.
    using Value =
        std::variant<std::monostate, std::uint64_t, std::int64_t, double, std::string, std::vector<Any>>;

    Any(std::string signature, Value value);
    TERN_API static Any FromNumber(const char* signature, std::uint64_t number);
    TERN_API static Any FromNumber(const char* signature, std::int64_t number);
    TERN_API static Any FromNumber(const char* signature, double number);
    TERN_API static Any FromText(std::string_view text);
    TERN_API static Any FromMessage(const char* signature, const void* value,
                                    int (*write)(sd_bus_message* message, const void* value));
    TERN_API bool ToMessage(void* value, int (*read)(sd_bus_message* message, void* value)) const;

    std::string mSignature;
    Value mValue;
};

template <>
struct Codec<Any> : Detail::OfCode<'v'> {
    static int Write(sd_bus_message* message, const Any& value) { return WriteAny(message, value); }
    static int Read(sd_bus_message* message, Any& value, Fault& fault) {
        return ReadAny(message, value, fault);
    }
};

}  // namespace mwl::Typed
