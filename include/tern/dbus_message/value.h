#pragma once

#include <tern/foundation/api.h>

#include <cstdint>
#include <string>
#include <utility>

namespace mw::tern::DBusMessage {

/// What a stored value is; one tag for each concrete class below. The letter is the D-Bus type.
enum ValueType : std::uint32_t {
    VALUE_TYPE_UINT8 = 0,   ///< BYTE "y"
    VALUE_TYPE_BOOL = 1,    ///< BOOLEAN "b"
    VALUE_TYPE_INT16 = 2,   ///< INT16 "n"
    VALUE_TYPE_UINT16 = 3,  ///< UINT16 "q"
    VALUE_TYPE_INT32 = 4,   ///< INT32 "i"
    VALUE_TYPE_UINT32 = 5,  ///< UINT32 "u"
    VALUE_TYPE_INT64 = 6,   ///< INT64 "x"
    VALUE_TYPE_UINT64 = 7,  ///< UINT64 "t"
    VALUE_TYPE_DOUBLE = 8,  ///< DOUBLE "d"
    VALUE_TYPE_STRING = 9,  ///< STRING "s"
    VALUE_TYPE_FD = 10,     ///< UNIX_FD "h"
    VALUE_TYPE_ISI = 11,    ///< STRUCT "(isi)"
};

/// One typed value read from a D-Bus message; base of the twelve concrete classes. Readers select by the tag:
///
///     if (value.GetType() == VALUE_TYPE_INT32) { use(static_cast<const ValueInt32&>(value).value); }
///
/// One thread at a time. Owned by whoever created it, in a ValuesList by the list.
class TERN_API Value {
public:
    virtual ~Value();

    /// The tag that the concrete class set; constant for the object's life.
    ValueType GetType() const noexcept { return mType; }

protected:
    /// For the concrete classes: each has one tag.
    explicit Value(ValueType type) noexcept : mType(type) {}
    /// From a value of the same class.
    Value(const Value&) = default;
    /// Both sides are of the same class, so the tag is the same.
    Value& operator=(const Value&) = default;

private:
    ValueType mType;
};

/// A value with the tag `Tag` that holds one `T`. Used through the named classes below only.
template <typename T, ValueType Tag>
class TERN_API TypedValue : public Value {
public:
    /// Holds `initial`.
    explicit TypedValue(T initial) : Value(Tag), value(std::move(initial)) {}

    static constexpr ValueType TYPE = Tag;  ///< tag of the class

    /// The value; whoever has the object may change it.
    T value;
};

class TERN_API ValueUint8 : public TypedValue<unsigned char, VALUE_TYPE_UINT8> {
public:
    using TypedValue::TypedValue;
};

/// 0 or non-zero, as sd-bus delivers it.
class TERN_API ValueBool : public TypedValue<int, VALUE_TYPE_BOOL> {
public:
    using TypedValue::TypedValue;
};

class TERN_API ValueInt16 : public TypedValue<short, VALUE_TYPE_INT16> {
public:
    using TypedValue::TypedValue;
};

class TERN_API ValueUint16 : public TypedValue<unsigned short, VALUE_TYPE_UINT16> {
public:
    using TypedValue::TypedValue;
};

class TERN_API ValueInt32 : public TypedValue<int, VALUE_TYPE_INT32> {
public:
    using TypedValue::TypedValue;
};

class TERN_API ValueUint32 : public TypedValue<unsigned int, VALUE_TYPE_UINT32> {
public:
    using TypedValue::TypedValue;
};

class TERN_API ValueInt64 : public TypedValue<long long, VALUE_TYPE_INT64> {
public:
    using TypedValue::TypedValue;
};

class TERN_API ValueUint64 : public TypedValue<unsigned long long, VALUE_TYPE_UINT64> {
public:
    using TypedValue::TypedValue;
};

class TERN_API ValueDouble : public TypedValue<double, VALUE_TYPE_DOUBLE> {
public:
    using TypedValue::TypedValue;
};

/// Owns a copy of its text.
class TERN_API ValueString : public TypedValue<std::string, VALUE_TYPE_STRING> {
public:
    using TypedValue::TypedValue;
};

/// A descriptor's number, neither duplicated nor closed by the value. A descriptor that came with a message
/// is closed when that message is freed; who wants it longer duplicates it (fcntl(2), F_DUPFD_CLOEXEC) while
/// the message lives.
class TERN_API ValueFD : public TypedValue<unsigned int, VALUE_TYPE_FD> {
public:
    using TypedValue::TypedValue;
};

/// The one structured value, "(isi)": an integer, a text, an integer. Stored value and out-parameter of
/// ValuesList::GetISI in one.
class TERN_API ValueISI : public Value {
public:
    /// Both integers 0, an empty text.
    ValueISI() : ValueISI(0, std::string(), 0) {}
    /// The three fields, in the order of the message.
    ValueISI(std::int32_t firstInteger, std::string textBetween, std::int32_t secondInteger)
        : Value(TYPE), first(firstInteger), text(std::move(textBetween)), second(secondInteger) {}
    /// Copies the three fields.
    ValueISI(const ValueISI&) = default;
    /// Copies the three fields; assigning an object to itself changes nothing.
    ValueISI& operator=(const ValueISI&) = default;

    static constexpr ValueType TYPE = VALUE_TYPE_ISI;  ///< tag of the class

    /// The integer before the text.
    std::int32_t first;
    /// The text between.
    std::string text;
    /// The integer behind the text.
    std::int32_t second;
};

}  // namespace mw::tern::DBusMessage
