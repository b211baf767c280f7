#pragma once

#include <tern/typed/codec.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

namespace ternctl {

/// Writes one JSON document without line breaks. Integers are written with all their digits, also those
/// that a double cannot hold; what is not UTF-8 becomes U+FFFD; a number that is none becomes null.
///
///     JsonWriter json;
///     json.Begin('{').Add("Name", name).Key("Events").Begin('[')...End(']').End('}');
class JsonWriter {
public:
    /// Of an object '{' or an array '['.
    JsonWriter& Begin(char bracket);
    /// '}' or ']'.
    JsonWriter& End(char bracket);
    /// Of the value that comes next.
    JsonWriter& Key(std::string_view key);

    JsonWriter& Value(std::string_view text);
    JsonWriter& Value(const std::string& text) { return Value(std::string_view(text)); }
    JsonWriter& Value(const char* text) { return Value(std::string_view(text)); }
    JsonWriter& Value(bool value);
    JsonWriter& Value(double value);
    JsonWriter& Value(std::uint64_t value);
    JsonWriter& Value(std::uint32_t value) { return Value(std::uint64_t{value}); }
    JsonWriter& Null();

    /// An array.
    template <class T>
    JsonWriter& Value(const std::vector<T>& values) {
        Begin('[');
        for (const T& value : values) {
            Value(value);
        }
        return End(']');
    }
    /// An object, with the keys that it has on the bus.
    template <class T>
    requires mwl::Typed::Detail::DescribedFields<T> JsonWriter& Value(const T& aggregate) {
        Begin('{');
        std::apply([&](const auto&... field) { (Add(field.name, aggregate.*field.member), ...); },
                   T::DBusFields().fields);
        return End('}');
    }

    template <class T>
    JsonWriter& Add(std::string_view key, const T& value) {
        return Key(key).Value(value);
    }

    const std::string& GetText() const { return mText; }

private:
    void Separate();
    void Quote(std::string_view text);

    std::string mText;
    bool mIsFirst = true;  ///< in its array or object
};

}  // namespace ternctl
