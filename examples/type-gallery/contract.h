#pragma once

// The gallery's interface on the bus, described once: the values, then the interface. The compiler makes the
// service's vtable from it, and a client that includes this header is checked against it as well.

#include <tern/typed/codec.h>
#include <tern/typed/contract.h>

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace type_gallery {

namespace Typed = mwl::Typed;

/// The types of the rows that are no plain number or text; the D-Bus type stands behind each.
namespace values {

using ObjectPath = Typed::ObjectPath;                              // o
using Signature = Typed::Signature;                                // g
using Descriptor = Typed::OwnedFd;                                 // h
using Bytes = std::vector<std::uint8_t>;                           // ay
using Doubles = std::vector<double>;                               // ad
using Strings = std::vector<std::string>;                          // as
using Booleans = std::vector<bool>;                                // ab
using Triple = std::array<double, 3>;                              // ad, of exactly three
using Pairs = std::vector<std::pair<double, std::string>>;         // a(ds)
using Matrix = std::vector<std::vector<double>>;                   // aad
using Texts = std::map<std::string, std::string>;                  // a{ss}
using Numbers = std::map<std::uint32_t, std::string>;              // a{us}
using Anything = Typed::Any;                                       // v
using DictAny = std::map<std::string, Typed::Any>;                 // a{sv}
using Choice = std::variant<std::uint32_t, std::string, Strings>;  // v, of a u, an s or an as

/// (isd): the fields of an aggregate in their order; nothing else is needed.
struct Structure {
    std::int32_t number = 0;
    std::string text;
    double level = 0.0;
};

/// (sad)
struct Series {
    std::string name;
    std::vector<double> points;
};

/// (i(sad)): an aggregate in an aggregate.
struct Nested {
    std::int32_t number = 0;
    Series series;
};

/// a{sv}, as services pass options: "Seconds" has to be there, "Note" may be, keys of a later version are
/// skipped.
struct Options {
    std::uint32_t seconds = 0;
    std::optional<std::string> note;

    static constexpr auto DBusFields() {
        return Typed::Fields(Typed::Field("Seconds", &Options::seconds),
                             Typed::Field("Note", &Options::note));
    }
};

/// The same, but keys that nobody knows are refused.
struct StrictOptions {
    std::uint32_t seconds = 0;
    std::optional<std::string> note;

    static constexpr auto DBusFields() {
        return Typed::StrictFields(Typed::Field("Seconds", &StrictOptions::seconds),
                                   Typed::Field("Note", &StrictOptions::note));
    }
};

/// u, and no other numbers than these.
enum class Color : std::uint32_t { Red = 0, Green = 1, Blue = 2 };
constexpr auto DBusEnum(Color) {
    return std::array{Color::Red, Color::Green, Color::Blue};
}

/// s, and no other texts than these.
enum class Mode { Off, Eco, Full };
constexpr auto DBusEnum(Mode) {
    using Text = Typed::EnumText<Mode>;
    return std::array{Text{Mode::Off, "off"}, Text{Mode::Eco, "eco"}, Text{Mode::Full, "full"}};
}

}  // namespace values

/// A method that takes a value and gives it back.
template <class T>
using Echo = Typed::Method<T(T)>;

/// One row for each type: a method that gives the value back, a property, and a signal that the method sends
/// with the value. Then methods that show how a call can end otherwise.
struct TypeGallery1 {
    static constexpr const char* NAME = "com.example.TypeGallery1";
    static constexpr const char* DOCUMENTATION = "Every type that a contract can have, there and back.";

    template <class T>
    using WritableProperty = Typed::WritableProperty<T>;
    template <class... T>
    using Signal = Typed::Signal<T...>;
    static constexpr Typed::Flags OPEN = Typed::OPEN;
    static constexpr Typed::Flags EMITS = Typed::EMITS;

    static constexpr Echo<std::uint8_t> EchoByte{"EchoByte", {"x", "x"}, OPEN};
    static constexpr WritableProperty<std::uint8_t> Byte{"Byte", EMITS | OPEN};
    static constexpr Signal<std::uint8_t> GotByte{"GotByte", {"x"}};

    static constexpr Echo<std::int16_t> EchoInt16{"EchoInt16", {"x", "x"}, OPEN};
    static constexpr WritableProperty<std::int16_t> Int16{"Int16", EMITS | OPEN};
    static constexpr Signal<std::int16_t> GotInt16{"GotInt16", {"x"}};

    static constexpr Echo<std::uint16_t> EchoUInt16{"EchoUInt16", {"x", "x"}, OPEN};
    static constexpr WritableProperty<std::uint16_t> UInt16{"UInt16", EMITS | OPEN};
    static constexpr Signal<std::uint16_t> GotUInt16{"GotUInt16", {"x"}};

    static constexpr Echo<std::int32_t> EchoInt32{"EchoInt32", {"x", "x"}, OPEN};
    static constexpr WritableProperty<std::int32_t> Int32{"Int32", EMITS | OPEN};
    static constexpr Signal<std::int32_t> GotInt32{"GotInt32", {"x"}};

    static constexpr Echo<std::uint32_t> EchoUInt32{"EchoUInt32", {"x", "x"}, OPEN};
    static constexpr WritableProperty<std::uint32_t> UInt32{"UInt32", EMITS | OPEN};
    static constexpr Signal<std::uint32_t> GotUInt32{"GotUInt32", {"x"}};

    static constexpr Echo<std::int64_t> EchoInt64{"EchoInt64", {"x", "x"}, OPEN};
    static constexpr WritableProperty<std::int64_t> Int64{"Int64", EMITS | OPEN};
    static constexpr Signal<std::int64_t> GotInt64{"GotInt64", {"x"}};

    static constexpr Echo<std::uint64_t> EchoUInt64{"EchoUInt64", {"x", "x"}, OPEN};
    static constexpr WritableProperty<std::uint64_t> UInt64{"UInt64", EMITS | OPEN};
    static constexpr Signal<std::uint64_t> GotUInt64{"GotUInt64", {"x"}};

    static constexpr Echo<double> EchoDouble{"EchoDouble", {"x", "x"}, OPEN};
    static constexpr WritableProperty<double> Double{"Double", EMITS | OPEN};
    static constexpr Signal<double> GotDouble{"GotDouble", {"x"}};

    static constexpr Echo<bool> EchoBoolean{"EchoBoolean", {"x", "x"}, OPEN};
    static constexpr WritableProperty<bool> Boolean{"Boolean", EMITS | OPEN};
    static constexpr Signal<bool> GotBoolean{"GotBoolean", {"x"}};

    static constexpr Echo<std::string> EchoString{"EchoString", {"x", "x"}, OPEN};
    static constexpr WritableProperty<std::string> String{"String", EMITS | OPEN};
    static constexpr Signal<std::string> GotString{"GotString", {"x"}};

    static constexpr Echo<values::ObjectPath> EchoObjectPath{"EchoObjectPath", {"x", "x"}, OPEN};
    static constexpr WritableProperty<values::ObjectPath> ObjectPath{"ObjectPath", EMITS | OPEN};
    static constexpr Signal<values::ObjectPath> GotObjectPath{"GotObjectPath", {"x"}};

    static constexpr Echo<values::Signature> EchoSignature{"EchoSignature", {"x", "x"}, OPEN};
    static constexpr WritableProperty<values::Signature> Signature{"Signature", EMITS | OPEN};
    static constexpr Signal<values::Signature> GotSignature{"GotSignature", {"x"}};

    static constexpr Echo<values::Descriptor> EchoDescriptor{"EchoDescriptor", {"x", "x"}, OPEN};
    static constexpr Signal<values::Descriptor> GotDescriptor{"GotDescriptor", {"x"}};

    static constexpr Echo<values::Bytes> EchoBytes{"EchoBytes", {"x", "x"}, OPEN};
    static constexpr WritableProperty<values::Bytes> Bytes{"Bytes", EMITS | OPEN};
    static constexpr Signal<values::Bytes> GotBytes{"GotBytes", {"x"}};

    static constexpr Echo<values::Doubles> EchoDoubles{"EchoDoubles", {"x", "x"}, OPEN};
    static constexpr WritableProperty<values::Doubles> Doubles{"Doubles", EMITS | OPEN};
    static constexpr Signal<values::Doubles> GotDoubles{"GotDoubles", {"x"}};

    static constexpr Echo<values::Strings> EchoStrings{"EchoStrings", {"x", "x"}, OPEN};
    static constexpr WritableProperty<values::Strings> Strings{"Strings", EMITS | OPEN};
    static constexpr Signal<values::Strings> GotStrings{"GotStrings", {"x"}};

    static constexpr Echo<values::Booleans> EchoBooleans{"EchoBooleans", {"x", "x"}, OPEN};
    static constexpr WritableProperty<values::Booleans> Booleans{"Booleans", EMITS | OPEN};
    static constexpr Signal<values::Booleans> GotBooleans{"GotBooleans", {"x"}};

    static constexpr Echo<values::Triple> EchoTriple{"EchoTriple", {"x", "x"}, OPEN};
    static constexpr WritableProperty<values::Triple> Triple{"Triple", EMITS | OPEN};
    static constexpr Signal<values::Triple> GotTriple{"GotTriple", {"x"}};

    static constexpr Echo<values::Pairs> EchoPairs{"EchoPairs", {"x", "x"}, OPEN};
    static constexpr WritableProperty<values::Pairs> Pairs{"Pairs", EMITS | OPEN};
    static constexpr Signal<values::Pairs> GotPairs{"GotPairs", {"x"}};

    static constexpr Echo<values::Matrix> EchoMatrix{"EchoMatrix", {"x", "x"}, OPEN};
    static constexpr WritableProperty<values::Matrix> Matrix{"Matrix", EMITS | OPEN};
    static constexpr Signal<values::Matrix> GotMatrix{"GotMatrix", {"x"}};

    static constexpr Echo<values::Texts> EchoTexts{"EchoTexts", {"x", "x"}, OPEN};
    static constexpr WritableProperty<values::Texts> Texts{"Texts", EMITS | OPEN};
    static constexpr Signal<values::Texts> GotTexts{"GotTexts", {"x"}};

    static constexpr Echo<values::Numbers> EchoNumbers{"EchoNumbers", {"x", "x"}, OPEN};
    static constexpr WritableProperty<values::Numbers> Numbers{"Numbers", EMITS | OPEN};
    static constexpr Signal<values::Numbers> GotNumbers{"GotNumbers", {"x"}};

    static constexpr Echo<values::Structure> EchoStructure{"EchoStructure", {"x", "x"}, OPEN};
    static constexpr WritableProperty<values::Structure> Structure{"Structure", EMITS | OPEN};
    static constexpr Signal<values::Structure> GotStructure{"GotStructure", {"x"}};

    static constexpr Echo<values::Nested> EchoNested{"EchoNested", {"x", "x"}, OPEN};
    static constexpr WritableProperty<values::Nested> Nested{"Nested", EMITS | OPEN};
    static constexpr Signal<values::Nested> GotNested{"GotNested", {"x"}};

    static constexpr Echo<values::Options> EchoOptions{"EchoOptions", {"x", "x"}, OPEN};
    static constexpr WritableProperty<values::Options> Options{"Options", EMITS | OPEN};
    static constexpr Signal<values::Options> GotOptions{"GotOptions", {"x"}};

    static constexpr Echo<values::StrictOptions> EchoStrictOptions{"EchoStrictOptions", {"x", "x"}, OPEN};
    static constexpr WritableProperty<values::StrictOptions> StrictOptions{"StrictOptions", EMITS | OPEN};
    static constexpr Signal<values::StrictOptions> GotStrictOptions{"GotStrictOptions", {"x"}};

    static constexpr Echo<values::Anything> EchoAnything{"EchoAnything", {"x", "x"}, OPEN};
    static constexpr WritableProperty<values::Anything> Anything{"Anything", EMITS | OPEN};
    static constexpr Signal<values::Anything> GotAnything{"GotAnything", {"x"}};

    static constexpr Echo<values::DictAny> EchoDictAny{"EchoDictAny", {"x", "x"}, OPEN};
    static constexpr WritableProperty<values::DictAny> DictAny{"DictAny", EMITS | OPEN};
    static constexpr Signal<values::DictAny> GotDictAny{"GotDictAny", {"x"}};

    static constexpr Echo<values::Choice> EchoChoice{"EchoChoice", {"x", "x"}, OPEN};
    static constexpr WritableProperty<values::Choice> Choice{"Choice", EMITS | OPEN};
    static constexpr Signal<values::Choice> GotChoice{"GotChoice", {"x"}};

    static constexpr Echo<values::Color> EchoColor{"EchoColor", {"x", "x"}, OPEN};
    static constexpr WritableProperty<values::Color> Color{"Color", EMITS | OPEN};
    static constexpr Signal<values::Color> GotColor{"GotColor", {"x"}};

    static constexpr Echo<values::Mode> EchoMode{"EchoMode", {"x", "x"}, OPEN};
    static constexpr WritableProperty<values::Mode> Mode{"Mode", EMITS | OPEN};
    static constexpr Signal<values::Mode> GotMode{"GotMode", {"x"}};
    static constexpr Typed::Method<void(std::string, std::string)> Fail{
        "Fail", {"name", "text"}, OPEN, "Ends with this error."};
    static constexpr Typed::Method<void(std::string)> Throw{
        "Throw",
        {"kind"},
        OPEN,
        "Throws bad_alloc, runtime_error or int, or returns the StatusCode that is called so."};
    static constexpr Typed::Method<std::string(std::uint32_t, std::string)> Later{
        "Later", {"ms", "text", "text"}, OPEN, "Gives the text back from a worker, after a while."};
    static constexpr Typed::Method<void()> Drop{"Drop", {}, OPEN, "Takes the call and never answers it."};
    static constexpr Typed::Method<void(std::string)> Add{
        "Add", {"path"}, OPEN, "Makes an object below /com/example."};
    static constexpr Typed::Method<void(std::string)> Remove{
        "Remove", {"path"}, OPEN, "Takes such an object away again."};
    static constexpr Typed::Method<void()> Closed{
        "Closed", {}, Typed::Checked(), "For root and for the user of the service."};

    /// The order in which introspection reports them.
    static constexpr Typed::Members<
        EchoByte, Byte, GotByte, EchoInt16, Int16, GotInt16, EchoUInt16, UInt16, GotUInt16, EchoInt32, Int32,
        GotInt32, EchoUInt32, UInt32, GotUInt32, EchoInt64, Int64, GotInt64, EchoUInt64, UInt64, GotUInt64,
        EchoDouble, Double, GotDouble, EchoBoolean, Boolean, GotBoolean, EchoString, String, GotString,
        EchoObjectPath, ObjectPath, GotObjectPath, EchoSignature, Signature, GotSignature, EchoDescriptor,
        GotDescriptor, EchoBytes, Bytes, GotBytes, EchoDoubles, Doubles, GotDoubles, EchoStrings, Strings,
        GotStrings, EchoBooleans, Booleans, GotBooleans, EchoTriple, Triple, GotTriple, EchoPairs, Pairs,
        GotPairs, EchoMatrix, Matrix, GotMatrix, EchoTexts, Texts, GotTexts, EchoNumbers, Numbers, GotNumbers,
        EchoStructure, Structure, GotStructure, EchoNested, Nested, GotNested, EchoOptions, Options,
        GotOptions, EchoStrictOptions, StrictOptions, GotStrictOptions, EchoAnything, Anything, GotAnything,
        EchoDictAny, DictAny, GotDictAny, EchoChoice, Choice, GotChoice, EchoColor, Color, GotColor, EchoMode,
        Mode, GotMode, Fail, Throw, Later, Drop, Add, Remove, Closed>
        ALL{};
};

/// The interface of the objects that Add creates.
struct TypeGalleryItem1 {
    static constexpr const char* NAME = "com.example.TypeGalleryItem1";

    static constexpr Typed::WritableProperty<std::string> Label{"Label", Typed::EMITS | Typed::OPEN,
                                                                "At first the object's path."};

    static constexpr Typed::Members<Label> ALL{};
};

}  // namespace type_gallery
