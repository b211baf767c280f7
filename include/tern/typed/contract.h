#pragma once

/// A D-Bus interface described in C++: its name and its members with their types, argument names, flags and
/// documentation. Servers (`Implements`), clients (`Proxy`) and documents (`WriteIntrospection`) are
/// generated from this one description.
///
///     struct Thermostat1 {
///         static constexpr const char* NAME = "com.example.Thermostat1";
///         //                            C++ type             name     arguments in, then out  flags  text
///         static constexpr Method<void(std::uint32_t)> Boost{"Boost", {"seconds"}, OPEN, "Heats for a
///         while."}; static constexpr Property<double> Temperature{"Temperature"};  // EMITS is the default
///         static constexpr WritableProperty<double> Target{"Target", EMITS | OPEN};
///         static constexpr Signal<double> Measured{"Measured", {"celsius"}};
///         static constexpr Members<Boost, Temperature, Target, Measured> ALL{};  // order of the vtable
///     };
///
/// A member is its own identifier: `Thermostat1::Boost`. Argument types are those that a Codec knows
/// (codec.h); in a contract a `std::string_view` stands for text of any kind, and handlers and callers may
/// use other C++ types of the same D-Bus signature. A contract may also have
/// `static constexpr const char* DOCUMENTATION`.
///
/// A contract that sd-bus would refuse at run time, or that has a member of no use, does not compile: the
/// error's text says what is wrong, the lines around it name the member
/// (`CheckedMember<Thermostat1::Boost>`).
///
/// Everything here is immutable; any thread.

#include <linux/capability.h>
#include <systemd/sd-bus.h>
#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>
#include <tern/typed/codec.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <span>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

namespace mwl::Typed {

using mw::tern::StatusCode;

/// How a member behaves; put together with `|`.
struct Flags {
    /// SD_BUS_VTABLE_*, see sd_bus_add_object_vtable(3).
    std::uint64_t bits = 0;
    /// capabilities(7), where Needs or Checked names one.
    int capability = -1;
    /// The typed bus checks the caller, see Checked.
    bool isChecked = false;
    /// Two capabilities were named.
    bool isTwofold = false;

    /// Whether one of `other`'s SD_BUS_VTABLE_* flags is set.
    constexpr bool Has(Flags other) const { return (bits & other.bits) != 0; }

    /// Both together.
    friend constexpr Flags operator|(Flags a, Flags b) {
        const bool areTwo = a.capability >= 0 && b.capability >= 0 && a.capability != b.capability;
        return {a.bits | b.bits, a.capability >= 0 ? a.capability : b.capability, a.isChecked || b.isChecked,
                a.isTwofold || b.isTwofold || areTwo};
    }
};

/// Everyone may call the method or write the property. Without it, only callers that sd-bus regards as
/// privileged: root, the service's own user, or who has CAP_SYS_ADMIN.
inline constexpr Flags OPEN{SD_BUS_VTABLE_UNPRIVILEGED};
/// Left out of what introspection shows.
inline constexpr Flags HIDDEN{SD_BUS_VTABLE_HIDDEN};
/// Marked as such by introspection.
inline constexpr Flags DEPRECATED{SD_BUS_VTABLE_DEPRECATED};
/// Memory of calls and replies is erased before it is freed.
inline constexpr Flags SENSITIVE{SD_BUS_VTABLE_SENSITIVE};
/// Nobody expects a reply of this method.
inline constexpr Flags NO_REPLY{SD_BUS_VTABLE_METHOD_NO_REPLY};
/// The property's changes are announced with the new value.
inline constexpr Flags EMITS{SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE};
/// The property's changes are announced without the value.
inline constexpr Flags INVALIDATES{SD_BUS_VTABLE_PROPERTY_EMITS_INVALIDATION};
/// The property never changes while the service runs.
inline constexpr Flags CONSTANT{SD_BUS_VTABLE_PROPERTY_CONST};
/// The property is given only to who asks for it by name, not with all others.
inline constexpr Flags EXPLICIT{SD_BUS_VTABLE_PROPERTY_EXPLICIT};

/// As closed as without OPEN, with another capability than CAP_SYS_ADMIN: `Needs(CAP_SYS_TIME)`.
constexpr Flags Needs(int capability) {
    return {SD_BUS_VTABLE_CAPABILITY(static_cast<std::uint64_t>(capability)), capability};
}

/// As closed as without OPEN, or as with the given Needs, and checked by the typed bus, which remembers who
/// its callers are. sd-bus itself asks the message bus for the caller's credentials in every call, and the
/// D-Bus thread waits meanwhile. For methods. An interface that is on no typed bus has sd-bus ask.
///
/// The first call of a caller waits until the message bus has answered. Calls of Checked methods stay in
/// their order; other calls of this caller, and accesses to properties, overtake the one that waits.
constexpr Flags Checked(Flags policy = Needs(CAP_SYS_ADMIN)) {
    return {policy.bits, policy.capability >= 0 ? policy.capability : CAP_SYS_ADMIN, true, policy.isTwofold};
}

/// The kinds of a contract's members.
enum class Kind {
    Method,    ///< Method
    Property,  ///< Property or WritableProperty
    Signal     ///< Signal
};

/// The signature of a method's results, and their number.
template <class R>
struct OutArguments {
    static constexpr auto SIGNATURE = MakeSignature<R>();  ///< of all, one behind the other
    static constexpr std::size_t COUNT = 1;                ///< how many there are
};
/// None.
template <>
struct OutArguments<void> {
    static constexpr Text<0> SIGNATURE{};    ///< empty
    static constexpr std::size_t COUNT = 0;  ///< none
};
/// Several.
template <class... T>
struct OutArguments<Results<T...>> {
    static constexpr auto SIGNATURE = MakeSignature<T...>();  ///< of all, one behind the other
    static constexpr std::size_t COUNT = sizeof...(T);        ///< how many there are
};

/// A method, `Method<R(A...)>`: R is void, one result, or `Results<...>` of several.
template <class F>
struct Method {
    static_assert(std::is_function_v<F>, "the type of a method is written as Method<Result(Arguments...)>");
};

/// `Method<std::string(std::string_view)> ExportLog{"ExportLog", {"password", "archive"}, OPEN | SENSITIVE};`
template <class R, class... A>
struct Method<R(A...)> {
    static constexpr Kind KIND = Kind::Method;  ///< what it is
    using Result = R;                           ///< void, a type, or Results of several
    /// Types of the arguments.
    using Arguments = std::tuple<std::remove_cvref_t<A>...>;
    static constexpr auto IN = MakeSignature<A...>();        ///< signature of the arguments
    static constexpr auto OUT = OutArguments<R>::SIGNATURE;  ///< signature of the results

    const char* name;  ///< on the bus
    /// Of the arguments, then of the results; all or none.
    std::array<const char*, sizeof...(A) + OutArguments<R>::COUNT> names{};
    Flags flags{};                   ///< closed unless OPEN
    const char* documentation = "";  ///< for WriteIntrospection
};

/// A property that peers read. Flags that are given replace the default ones: add EMITS to them when changes
/// are to be signalled. A property with none of EMITS, INVALIDATES and CONSTANT may change without anybody
/// being notified.
template <class T>
struct Property {
    static constexpr Kind KIND = Kind::Property;    ///< what it is
    static constexpr bool WRITABLE = false;         ///< peers read it only
    using Type = T;                                 ///< of the value
    static constexpr auto IN = MakeSignature<T>();  ///< signature of the value

    const char* name;                ///< on the bus
    Flags flags = EMITS;             ///< as given, without EMITS
    const char* documentation = "";  ///< for WriteIntrospection
};

/// A property that peers read and write. Everyone may read it; writing is closed unless OPEN.
template <class T>
struct WritableProperty {
    static constexpr Kind KIND = Kind::Property;    ///< what it is
    static constexpr bool WRITABLE = true;          ///< peers read and write it
    using Type = T;                                 ///< of the value
    static constexpr auto IN = MakeSignature<T>();  ///< signature of the value

    const char* name;                ///< on the bus
    Flags flags = EMITS;             ///< as given, without EMITS
    const char* documentation = "";  ///< for WriteIntrospection
};

/// A signal; `Implements::Emit` sends it.
template <class... A>
struct Signal {
    static constexpr Kind KIND = Kind::Signal;  ///< what it is
    /// Types of the arguments.
    using Arguments = std::tuple<std::remove_cvref_t<A>...>;
    static constexpr auto IN = MakeSignature<A...>();  ///< signature of the arguments

    const char* name;                               ///< on the bus
    std::array<const char*, sizeof...(A)> names{};  ///< of the arguments; all or none
    Flags flags{};                                  ///< DEPRECATED or none
    const char* documentation = "";                 ///< for WriteIntrospection
};

/// A member as a type: members are compared by it, because compilers do not fold comparisons of their
/// addresses under every option.
template <const auto& M>
struct Tag {};

/// The type of a member.
template <const auto& M>
using MemberType = std::remove_cvref_t<decltype(M)>;

/// Whether a type is that of a member.
template <class T>
inline constexpr bool IS_MEMBER = false;
/// A method is one.
template <class R, class... A>
inline constexpr bool IS_MEMBER<Method<R(A...)>> = true;
/// A property is one.
template <class T>
inline constexpr bool IS_MEMBER<Property<T>> = true;
/// A writable property is one.
template <class T>
inline constexpr bool IS_MEMBER<WritableProperty<T>> = true;
/// A signal is one.
template <class... A>
inline constexpr bool IS_MEMBER<Signal<A...>> = true;

/// Whether `text` is letters, digits and underscores, without a digit at its beginning.
constexpr bool IsNameElement(std::string_view text) {
    if (text.empty() || (text.front() >= '0' && text.front() <= '9')) {
        return false;
    }
    for (const char c : text) {
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_')) {
            return false;
        }
    }
    return true;
}

/// Whether `name` is a D-Bus member name: one element, at most 255 characters.
constexpr bool IsMemberName(const char* name) {
    return name != nullptr && std::string_view(name).size() <= 255 && IsNameElement(name);
}

/// Whether `name` is a D-Bus interface name: two elements or more, with dots between them, at most 255
/// characters.
constexpr bool IsInterfaceName(const char* name) {
    if (name == nullptr || std::string_view(name).size() > 255) {
        return false;
    }
    std::string_view rest(name);
    for (std::size_t dot = rest.find('.'); dot != std::string_view::npos; dot = rest.find('.')) {
        if (!IsNameElement(rest.substr(0, dot))) {
            return false;
        }
        rest.remove_prefix(dot + 1);
    }
    return rest.size() < std::string_view(name).size() && IsNameElement(rest);
}

namespace Detail {

/// All named, or none.
template <std::size_t N>
constexpr bool AreAllNamed(const std::array<const char*, N>& names) {
    std::size_t named = 0;
    for (const char* const name : names) {
        named += name != nullptr ? 1U : 0U;
    }
    return named == 0 || named == N;
}

/// Of letters, digits, '_', '-' and '.': the characters that XML takes as they are.
template <std::size_t N>
constexpr bool AreNames(const std::array<const char*, N>& names) {
    for (const char* name : names) {
        if (name == nullptr) {
            continue;
        }
        if (*name == '\0') {
            return false;
        }
        for (; *name != '\0'; ++name) {
            if (!IsNameElement(std::string_view(name, 1)) && !(*name >= '0' && *name <= '9') &&
                *name != '-' && *name != '.') {
                return false;
            }
        }
    }
    return true;
}

template <const auto&... M>
constexpr bool AreDifferent() {
    const std::array<std::pair<Kind, std::string_view>, sizeof...(M)> all{{{MemberType<M>::KIND, M.name}...}};
    for (std::size_t i = 0; i < all.size(); ++i) {
        const std::string_view name = all[i].second;
        for (std::size_t j = 0; j < i; ++j) {
            // Most names differ in their length already; compilers count every step.
            if (all[j].second.size() == name.size() && all[j].second == name &&
                all[j].first == all[i].first) {
                return false;
            }
        }
    }
    return true;
}

// Instead of fold expressions over the members of a contract, which clang takes of 256 at most.
constexpr std::size_t CountTrue(std::initializer_list<bool> values) {
    std::size_t count = 0;
    for (const bool value : values) {
        count += value ? 1U : 0U;
    }
    return count;
}
constexpr bool AreAll(std::initializer_list<bool> values) {
    return CountTrue(values) == values.size();
}

/// Different types as bases, so that one of hundreds is found by one conversion instead of by comparing each.
template <std::size_t I, class T>
struct Slot {};
template <class Indices, class... T>
struct SlotsOf;
template <std::size_t... I, class... T>
struct SlotsOf<std::index_sequence<I...>, T...> : Slot<I, T>... {};
template <class... T>
using Slots = SlotsOf<std::make_index_sequence<sizeof...(T)>, T...>;

constexpr int CountOf(Flags flags, Flags a, Flags b, Flags c) {
    return int{flags.Has(a)} + int{flags.Has(b)} + int{flags.Has(c)};
}

}  // namespace Detail

/// Instantiated once for each member of a contract; refuses what cannot work.
template <const auto& M>
struct CheckedMember {
    using Member = MemberType<M>;  ///< its type
    static_assert(IS_MEMBER<Member>,
                  "a member of a contract is a Method, a Property, a WritableProperty or a Signal");
    static_assert(
        IsMemberName(M.name),
        "the name of a member is of letters, digits and underscores, does not begin with a digit and has "
        "1 to 255 characters");
    static_assert(!M.flags.isTwofold, "a member Needs one capability, not two");
    static_assert(M.flags.capability >= -1 && M.flags.capability < 64,
                  "Needs takes a number of capabilities(7), such as CAP_SYS_TIME");
    static_assert(!M.flags.Has(OPEN) || M.flags.capability == -1,
                  "a member is OPEN to everyone, or Needs a capability, or is Checked");
    static_assert(Member::KIND == Kind::Method || !M.flags.Has(NO_REPLY), "NO_REPLY is for methods");
    static_assert(Member::KIND == Kind::Method || !M.flags.isChecked,
                  "Checked is for methods: sd-bus itself answers who writes a property");
    static_assert(Member::KIND == Kind::Property || !M.flags.Has(EMITS | INVALIDATES | CONSTANT | EXPLICIT),
                  "EMITS, INVALIDATES, CONSTANT and EXPLICIT are for properties");

    /// Other refusals depend on the kind of the member.
    static constexpr bool IsSound() {
        if constexpr (Member::KIND == Kind::Property) {
            static_assert(Detail::CountOf(M.flags, EMITS, INVALIDATES, CONSTANT) <= 1,
                          "a property has one of EMITS, INVALIDATES and CONSTANT");
            static_assert(!M.flags.Has(EMITS) || !M.flags.Has(EXPLICIT),
                          "an EXPLICIT property is not sent unasked: INVALIDATES instead of EMITS");
            static_assert(!Member::WRITABLE || !M.flags.Has(CONSTANT), "a writable property is not CONSTANT");
            static_assert(Member::WRITABLE || (!M.flags.Has(OPEN) && M.flags.capability == -1),
                          "everyone may read a property: OPEN and Needs are for writable ones");
        } else {
            static_assert(Detail::AreAllNamed(M.names), "every argument has a name, or none has");
            static_assert(Detail::AreNames(M.names),
                          "the name of an argument is of letters, digits, '_', '-' and '.'");
        }
        if constexpr (Member::KIND == Kind::Method) {
            static_assert(!M.flags.Has(NO_REPLY) || Member::OUT.SIZE == 0,
                          "a method with NO_REPLY has no result");
        }
        if constexpr (Member::KIND == Kind::Signal) {
            static_assert(!M.flags.Has(HIDDEN), "a signal is not HIDDEN");
            static_assert(!M.flags.Has(OPEN) && M.flags.capability == -1,
                          "nobody calls a signal: OPEN and Needs are for methods and writable properties");
            static_assert(!M.flags.Has(SENSITIVE), "everyone gets a signal: it is not SENSITIVE");
        }
        return true;
    }
};

/// The members of a contract in the order of its vtable: `static constexpr Members<A, B> ALL{};`.
template <const auto&... M>
struct Members {
    /// How many there are.
    static constexpr std::size_t COUNT = sizeof...(M);
    /// How many properties announce their changes.
    static constexpr std::size_t ANNOUNCED = Detail::CountTrue({M.flags.Has(EMITS | INVALIDATES)...});

    static_assert(Detail::AreAll({CheckedMember<M>::IsSound()...}));
    static_assert(ANNOUNCED <= 64, "at most 64 properties of an interface announce their changes");
    static_assert(Detail::AreDifferent<M...>(),
                  "two methods, two properties or two signals of a contract have the same name");
};

/// Whether a type is Members<...>.
template <class T>
inline constexpr bool IS_MEMBERS = false;
/// A list of members is one.
template <const auto&... M>
inline constexpr bool IS_MEMBERS<Members<M...>> = true;

/// Instantiated by whoever uses a contract; refuses what is none.
template <class Contract>
struct CheckedContract {
    static_assert(
        requires { Contract::NAME; }, "a contract has a NAME: static constexpr const char* NAME = ...");
    static_assert(
        requires { Contract::ALL; }, "a contract lists its members: static constexpr Members<...> ALL{}");
    static_assert(
        IsInterfaceName(Contract::NAME),
        "the NAME of a contract has two or more parts with dots between them, each of letters, digits "
        "and underscores, and at most 255 characters");
    static_assert(IS_MEMBERS<std::remove_cvref_t<decltype(Contract::ALL)>>,
                  "ALL of a contract is of the type Members<...>");
    static constexpr bool IS_SOUND = true;  ///< by which it is instantiated
};

namespace Detail {

template <const auto& M, std::size_t I>
void FindTag(const Slot<I, Tag<M>>*);

template <const auto& M, const auto&... All>
constexpr bool IsIn(Members<All...>) {
    return requires(const Slots<Tag<All>...>* slots) {
        FindTag<M>(slots);
    };
}

/// The bit of a property among those of its contract that announce their changes.
template <const auto& M, const auto&... All>
consteval std::uint64_t ChangeBit(Members<All...>) {
    const bool isIt[] = {std::is_same_v<Tag<M>, Tag<All>>...};
    const bool isAnnounced[] = {All.flags.Has(EMITS | INVALIDATES)...};
    std::uint64_t bit = 1;
    for (std::size_t i = 0; i < sizeof...(All) && !isIt[i]; ++i) {
        bit <<= isAnnounced[i] ? 1U : 0U;
    }
    return bit;
}

template <const auto& M>
constexpr std::size_t SizeOfNames() {
    std::size_t size = 1;
    for (const char* const name : M.names) {
        size += name != nullptr ? std::string_view(name).size() + 1 : 0;
    }
    return size;
}

template <const auto& M>
constexpr auto JoinNames() {
    std::array<char, SizeOfNames<M>()> joined{};
    std::size_t at = 0;
    for (const char* const name : M.names) {
        if (name != nullptr) {
            for (const char c : std::string_view(name)) {
                joined[at++] = c;
            }
            ++at;
        }
    }
    return joined;
}

}  // namespace Detail

/// Whether `M` is one of the contract's members.
template <class Contract, const auto& M>
inline constexpr bool IS_MEMBER_OF = Detail::IsIn<M>(Contract::ALL);

/// The names of a member's arguments as sd-bus wants them: each with its null character, another at the end.
template <const auto& M>
inline constexpr auto NAMES = Detail::JoinNames<M>();

/// A member of a contract for code that is no template.
struct MemberText {
    Kind kind = Kind::Method;        ///< what it is
    bool isWritable = false;         ///< of a property
    const char* name = "";           ///< on the bus
    const char* in = "";             ///< signature of the arguments, or of the property
    const char* out = "";            ///< of a method's results
    const char* names = "";          ///< NAMES; of a property none
    Flags flags{};                   ///< as in the contract
    const char* documentation = "";  ///< as in the contract
};

namespace Detail {

template <const auto& M>
constexpr MemberText TextOf() {
    using Member = MemberType<M>;
    if constexpr (Member::KIND == Kind::Method) {
        return {Kind::Method,     false,           M.name,  Member::IN.text,
                Member::OUT.text, NAMES<M>.data(), M.flags, M.documentation};
    } else if constexpr (Member::KIND == Kind::Property) {
        return {Kind::Property, Member::WRITABLE, M.name, Member::IN.text, "", "", M.flags, M.documentation};
    } else {
        return {Kind::Signal, false, M.name, Member::IN.text, "", NAMES<M>.data(), M.flags, M.documentation};
    }
}

template <const auto&... M>
constexpr std::array<MemberText, sizeof...(M)> TextsOf(Members<M...>) {
    return {TextOf<M>()...};
}

template <class Contract>
constexpr const char* DocumentationOf() {
    if constexpr (requires { Contract::DOCUMENTATION; }) {
        return Contract::DOCUMENTATION;
    } else {
        return "";
    }
}

}  // namespace Detail

/// The part of WriteIntrospection for each contract.
TERN_API StatusCode WriteIntrospectionOf(std::FILE* file, const char* interface, const char* documentation,
                                         std::span<const MemberText> members);

/// Writes the contract as D-Bus introspection data: what a peer sees of an object that keeps it, member by
/// member as sd-bus writes it, and the documentation in annotations "org.gtk.GDBus.DocString", and SENSITIVE
/// as "mwl.Typed.Sensitive". HIDDEN members are left out. Checked members are marked as privileged.
///
/// The file is not flushed. May block as the file does.
///
/// Ok: written, as far as the file's buffer says.
/// IoError: the file could not be written; how much of it was is unknown.
template <class Contract>
StatusCode WriteIntrospection(std::FILE* file) {
    static_assert(CheckedContract<Contract>::IS_SOUND);
    static constexpr auto MEMBERS = Detail::TextsOf(Contract::ALL);
    return WriteIntrospectionOf(file, Contract::NAME, Detail::DocumentationOf<Contract>(), MEMBERS);
}

}  // namespace mwl::Typed
