#pragma once

/// The introspection of an object, as data: for programs that learn an interface while they run. A program
/// that knows it before needs none of this: it has a contract.
///
///     Outcome<Introspection::Node> room = Introspection::Parse(xml);
///     if (room.IsOk()) {
///         for (const Introspection::Interface& one : room->interfaces) {
///             std::puts(one.name.c_str());
///         }
///     }
///
/// Values: copies are independent, one thread at a time.

#include <tern/foundation/api.h>
#include <tern/typed/error.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace mwl::Typed::Introspection {

/// A note on the element that it stands in, such as "org.freedesktop.DBus.Deprecated", "true".
struct Annotation {
    std::string name;   ///< with dots, like an interface's name
    std::string value;  ///< any text; may be empty

    /// All is the same.
    bool operator==(const Annotation&) const = default;
};

/// The value of the first annotation of this name; null when there is none. Valid as long as `annotations`
/// is not changed.
TERN_API const std::string* FindAnnotation(const std::vector<Annotation>& annotations, std::string_view name);

/// Who sends an argument.
enum class Direction {
    In,  ///< the caller of a method
    Out  ///< the method as a result, or the signal
};

/// An argument of a method or of a signal.
struct Argument {
    std::string name;                     ///< for people; empty when it was not given
    std::string type;                     ///< one complete type, for example "a{sv}"
    Direction direction = Direction::In;  ///< of a signal always Out
    std::vector<Annotation> annotations;  ///< in order

    /// All is the same.
    bool operator==(const Argument&) const = default;
};

/// A method.
struct Method {
    std::string name;                     ///< a member name
    std::vector<Argument> arguments;      ///< in order; those in and those out may stand mixed
    std::vector<Annotation> annotations;  ///< in order

    /// Of a caller's arguments: their types, one after the other.
    TERN_API std::string GetInSignature() const;
    /// Of the results.
    TERN_API std::string GetOutSignature() const;
    /// All is the same.
    bool operator==(const Method&) const = default;
};

/// A signal.
struct Signal {
    std::string name;                     ///< a member name
    std::vector<Argument> arguments;      ///< in order
    std::vector<Annotation> annotations;  ///< in order

    /// The types of the arguments, one behind the other.
    TERN_API std::string GetSignature() const;
    /// All is the same.
    bool operator==(const Signal&) const = default;
};

/// The access that peers have to a property.
enum class Access {
    Read,      ///< read it
    Write,     ///< write it
    ReadWrite  ///< both
};

/// A property.
struct Property {
    std::string name;                     ///< a member name
    std::string type;                     ///< one complete type
    Access access = Access::Read;         ///< as reported; the service may refuse nevertheless
    std::vector<Annotation> annotations;  ///< in order

    /// All is the same.
    bool operator==(const Property&) const = default;
};

/// An interface. Names may come more than once, because some services overload their methods.
struct Interface {
    std::string name;                     ///< an interface name
    std::vector<Method> methods;          ///< in order
    std::vector<Signal> signals;          ///< in order
    std::vector<Property> properties;     ///< in order
    std::vector<Annotation> annotations;  ///< in order

    /// The first one of this name; null when there is none. Valid as long as this is not changed.
    TERN_API const Method* FindMethod(std::string_view wanted) const;
    /// As above.
    TERN_API const Signal* FindSignal(std::string_view wanted) const;
    /// As above.
    TERN_API const Property* FindProperty(std::string_view wanted) const;
    /// All is the same.
    bool operator==(const Interface&) const = default;
};

/// An object, and what is known of those below it: mostly their names only, and they are to be asked
/// themselves.
struct Node {
    /// Of the outermost node: empty, or its object path. Of a node below it: the rest of its path after its
    /// parent's, without a '/' at its beginning: "Zone1".
    std::string name;
    std::vector<Interface> interfaces;    ///< in order
    std::vector<Node> children;           ///< in order
    std::vector<Annotation> annotations;  ///< in order

    /// The first one of this name; null when there is none. Valid as long as this is not changed.
    TERN_API const Interface* FindInterface(std::string_view wanted) const;
    /// All is the same.
    bool operator==(const Node&) const = default;
};

/// The longest text that Parse takes, in bytes: an object with a hundred thousand others below it has less.
inline constexpr std::size_t MAX_SIZE = std::size_t{4} * 1024 * 1024;
/// Most elements inside each other.
inline constexpr std::size_t MAX_NESTING = 64;

/// Reads introspection data (XML in UTF-8), which may come from a peer that nobody trusts: memory is bounded
/// by some twenty times the size of the text, and nothing is fetched. An element or attribute that D-Bus does
/// not know is left out, with all that is in it. REQUIRES libexpat at run time; it is loaded by the first
/// call and stays. Does not block otherwise. Throws std::bad_alloc.
///
/// In the result:
/// the outermost node.
/// InvalidArgs: something is wrong with the text, the first such thing with its line: "line 12: 'ii' is not
/// one complete type", "line 3: mismatched tag". Among what is wrong are names and types that D-Bus does not
/// have, entities and other declarations of the document's own, and what is beyond MAX_SIZE or MAX_NESTING.
/// NotSupported: libexpat cannot be loaded; the text says why.
TERN_API Outcome<Node> Parse(std::string_view xml);

}  // namespace mwl::Typed::Introspection
