#pragma once

// Aggregates as dictionaries. Include <tern/typed/codec.h>, which has all of the codecs.

#include <tern/typed/structures.h>
#include <tern/typed/variants.h>

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

namespace mwl::Typed {

/// A member of an aggregate and its key in the dictionary.
template <class Class, class Member>
struct Field {
    /// `key` is a literal.
    constexpr Field(const char* key, Member Class::*pointer) : name(key), member(pointer) {}

    /// The key.
    const char* name;
    /// What it is the key of.
    Member Class::*member;
};

/// What DBusFields() returns; created by Fields or StrictFields.
template <bool STRICT, class... F>
struct FieldList {
    /// Whether unknown keys are refused.
    static constexpr bool IS_STRICT = STRICT;
    /// Number of fields.
    static constexpr std::size_t COUNT = sizeof...(F);
    static_assert(COUNT >= 1 && COUNT <= 64, "DBusFields() describes 1 to 64 fields");

    /// See Fields.
    constexpr explicit FieldList(F... described) : fields(described...) {}

    /// One Field each, in order.
    std::tuple<F...> fields;
};

/// Describes an aggregate that goes over the bus as a{sv}, one entry per field, as services pass options:
///
///     struct Options {
///         std::uint32_t seconds = 0;
///         std::optional<std::string> reason;
///         static constexpr auto DBusFields() {
///             return Fields(Field("Seconds", &Options::seconds), Field("Reason", &Options::reason));
///         }
///     };
///
/// Sent: every field, in this order, without the std::optional ones that are empty. Read, in any order:
/// - A key that is missing: a std::optional field is empty; of another one it is reported, "the key 'Seconds'
/// is
///   missing".
/// - A value of another type: reported, with the key, "'s' where 'u' is wanted".
/// - A key that is not described: skipped, because it may be a later version's; with StrictFields it is
///   reported, "the key 'Minutes' is unknown".
/// - A key twice: the last one counts.
///
/// A field that is a variant itself (Any, std::variant) is the entry's variant, not one within it.
template <class... F>
constexpr FieldList<false, F...> Fields(F... fields) {
    return FieldList<false, F...>(fields...);
}

/// As Fields, but refuses keys that are not described.
template <class... F>
constexpr FieldList<true, F...> StrictFields(F... fields) {
    return FieldList<true, F...>(fields...);
}

namespace Detail {

/// One field of a type, as the library sees it. There is a table of them for writing a type and another one
/// for reading it, so that what only writes a type has no code that reads it.
struct FieldRow {
    const char* name;
    const char* signature;  ///< null: the field writes and reads the entry's variant by itself
    int (*write)(sd_bus_message* message, const void* aggregate);         ///< null in a table for reading
    int (*read)(sd_bus_message* message, void* aggregate, Fault& fault);  ///< null in a table for writing
    bool (*isSet)(const void* aggregate);                                 ///< null: the field is required
    void (*clear)(void* aggregate);  ///< null: the field is required, or this is a table for writing
};

TERN_API int WriteFields(sd_bus_message* message, const void* aggregate, const FieldRow* rows,
                         std::size_t count);
TERN_API int ReadFields(sd_bus_message* message, void* aggregate, const FieldRow* rows, std::size_t count,
                        bool isStrict, Fault& fault);

template <class T>
struct Required {
    using Type = T;
};
template <class T>
struct Required<std::optional<T>> {
    using Type = T;
};

template <class T, std::size_t INDEX>
struct FieldAccess {
    static constexpr auto FIELD = std::get<INDEX>(T::DBusFields().fields);
    using Member = std::remove_cvref_t<decltype(std::declval<T&>().*FIELD.member)>;
    using Value = typename Required<Member>::Type;
    static constexpr bool IS_REQUIRED = !IS_OPTIONAL<Member>;

    static int Write(sd_bus_message* message, const void* aggregate) {
        const Member& member = static_cast<const T*>(aggregate)->*FIELD.member;
        if constexpr (IS_REQUIRED) {
            return Codec<Value>::Write(message, member);
        } else {
            return Codec<Value>::Write(message, *member);
        }
    }
    static int Read(sd_bus_message* message, void* aggregate, Fault& fault) {
        Member& member = static_cast<T*>(aggregate)->*FIELD.member;
        if constexpr (IS_REQUIRED) {
            return Codec<Value>::Read(message, member, fault);
        } else {
            return Codec<Value>::Read(message, member.emplace(), fault);
        }
    }
    static bool IsSet(const void* aggregate) {
        return (static_cast<const T*>(aggregate)->*FIELD.member).has_value();
    }
    static void Clear(void* aggregate) { (static_cast<T*>(aggregate)->*FIELD.member).reset(); }

    template <bool READS>
    static constexpr FieldRow Row() {
        FieldRow row{FIELD.name, nullptr, nullptr, nullptr, nullptr, nullptr};
        if constexpr (Codec<Value>::SIGNATURE.View() != "v") {
            row.signature = Codec<Value>::SIGNATURE.text;
        }
        if constexpr (!IS_REQUIRED) {
            row.isSet = &IsSet;
        }
        if constexpr (!READS) {
            row.write = &Write;
        } else {
            row.read = &Read;
            if constexpr (!IS_REQUIRED) {
                row.clear = &Clear;
            }
        }
        return row;
    }
};

/// All fields of a type, for writing or for reading it.
template <class T, bool READS, class Indexes = std::make_index_sequence<decltype(T::DBusFields())::COUNT>>
struct FieldTable;
template <class T, bool READS, std::size_t... INDEX>
struct FieldTable<T, READS, std::index_sequence<INDEX...>> {
    static constexpr std::array<FieldRow, sizeof...(INDEX)> ROWS{
        FieldAccess<T, INDEX>::template Row<READS>()...};
};

template <bool STRICT, class... F>
constexpr bool HaveOwnKeys(const FieldList<STRICT, F...>& list) {
    const auto names = std::apply(
        [](const F&... field) { return std::array<std::string_view, sizeof...(F)>{field.name...}; },
        list.fields);
    for (std::size_t i = 0; i < names.size(); ++i) {
        for (std::size_t k = 0; k < i; ++k) {
            if (names[i] == names[k]) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace Detail

/// Aggregates with DBusFields(), see Fields.
template <Detail::DescribedFields T>
struct Codec<T> {
    static constexpr Text<5> SIGNATURE = "a{sv}";
    static int Write(sd_bus_message* message, const T& value) {
        constexpr const auto& ROWS = Detail::FieldTable<T, false>::ROWS;
        return Detail::WriteFields(message, &value, ROWS.data(), ROWS.size());
    }
    static int Read(sd_bus_message* message, T& value, Fault& fault) {
        constexpr const auto& ROWS = Detail::FieldTable<T, true>::ROWS;
        return Detail::ReadFields(message, &value, ROWS.data(), ROWS.size(), List::IS_STRICT, fault);
    }

private:
    using List = decltype(T::DBusFields());
    static_assert(Detail::HaveOwnKeys(T::DBusFields()), "two fields of DBusFields() have the same key");
};

namespace Detail {

template <class T, std::size_t... INDEX>
constexpr bool BorrowsInFields(std::index_sequence<INDEX...>) {
    return (BORROWS<typename FieldAccess<T, INDEX>::Value> || ...);
}

}  // namespace Detail

/// A dictionary borrows when one of its fields does.
template <Detail::DescribedFields T>
inline constexpr bool BORROWS<T> =
    Detail::BorrowsInFields<T>(std::make_index_sequence<decltype(T::DBusFields())::COUNT>());

}  // namespace mwl::Typed
