#pragma once

#include <tern/dbus_message/value.h>
#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace mw::tern::DBusMessage {

/// The content read from a D-Bus message: a flat list of typed values by key, ordered by the keys' bytes.
///
/// A parser fills it (its keys are built by Parser::CreatePrefix), the application reads it:
///
///     int volume = 0;
///     if (parser.GetValuesList().GetInt32("_Volume", volume) == StatusCode::Ok) { ... }
///
/// One thread at a time: filled, then read. The list owns its values and deletes them when it is destroyed;
/// nothing is ever removed before. A descriptor in the list closes with the message it came in (ValueFD).
class TERN_API ValuesList {
public:
    ValuesList();
    virtual ~ValuesList();
    ValuesList(const ValuesList&) = delete;
    ValuesList& operator=(const ValuesList&) = delete;

    /// @name Adders
    /// Each stores a copy of `value` under `key`. The first value of a key stays: when the key is there
    /// already, of whatever type, nothing is built and nothing changes. No result; std::bad_alloc when memory
    /// is short, and then the list is as it was.
    /// @{
    void AddValueUint8(const std::string& key, unsigned char value);
    void AddValueBool(const std::string& key, int value);
    void AddValueInt16(const std::string& key, short value);
    void AddValueUint16(const std::string& key, unsigned short value);
    void AddValueInt32(const std::string& key, int value);
    void AddValueUint32(const std::string& key, unsigned int value);
    void AddValueInt64(const std::string& key, long long value);
    void AddValueUint64(const std::string& key, unsigned long long value);
    void AddValueDouble(const std::string& key, double value);
    void AddValueString(const std::string& key, const std::string& value);
    /// The number only: the list neither duplicates nor closes the descriptor.
    void AddValueFD(const std::string& key, unsigned int value);
    void AddValueISI(const std::string& key, const ValueISI& value);
    /// @}

    /// @name Getters
    /// `Ok` and the value in `out` when `key` holds a value of exactly this type; there is no conversion.
    /// `KeyNotFound`, `out` untouched and a debug message when the key is absent or holds another type.
    /// @{
    StatusCode GetUint8(const std::string& key, unsigned char& out) const;
    StatusCode GetBool(const std::string& key, int& out) const;
    StatusCode GetInt16(const std::string& key, short& out) const;
    StatusCode GetUint16(const std::string& key, unsigned short& out) const;
    StatusCode GetInt32(const std::string& key, int& out) const;
    StatusCode GetUint32(const std::string& key, unsigned int& out) const;
    StatusCode GetInt64(const std::string& key, long long& out) const;
    StatusCode GetUint64(const std::string& key, unsigned long long& out) const;
    StatusCode GetDouble(const std::string& key, double& out) const;
    /// Replaces the whole content of `out`.
    StatusCode GetString(const std::string& key, std::string& out) const;
    /// The number as it was read; see ValueFD for how long it stays open.
    StatusCode GetFD(const std::string& key, unsigned int& out) const;
    StatusCode GetISI(const std::string& key, ValueISI& out) const;
    /// @}

    /// Whether the key holds a value, of whatever type.
    bool Contains(const std::string& key) const;
    /// Number of keys.
    std::size_t Size() const;
    /// All keys in ascending order of their bytes.
    std::vector<std::string> Keys() const;

private:
    friend class ValuesListWriter;

    std::map<std::string, Value*> mValues;  ///< owned; deleted in key order
};

}  // namespace mw::tern::DBusMessage
