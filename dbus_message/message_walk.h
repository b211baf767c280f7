#pragma once

#include <systemd/sd-bus.h>
#include <tern/dbus_message/values_list.h>

#include <string>

#include "dbus_message/key_budget.h"

namespace mw::tern::DBusMessage {

/// What stands before each name in a key.
inline constexpr char SEPARATOR = '_';

/// What Parser does: one walk over (a part of) a message, into a list. It keeps the path to where it is in
/// one buffer, which grows and shrinks with each step; a key is copied only into the list.
///
/// Results, messages and keys are described at Parser, whose operations have the same names. Names are never
/// null here.
class MessageWalk {
public:
    /// All are borrowed, but for the prefix, which is copied.
    MessageWalk(sd_bus_message* message, ValuesList& values, KeyBudget& budget, const std::string& prefix)
        : mMessage(message), mValues(values), mBudget(budget), mPath(prefix) {}

    /// Any basic type that a list can keep, by its letter.
    int ReadBasic(char type, const char* keyName);
    int ReadISI(const char* keyName);
    int ReadArrayOfStrings(const char* keyName);
    int ReadVariant(const char* keyName);
    int ReadVariantContent(const char* keyName, const char* contents);
    int ReadArrayOfDictionaries();
    int ParseArrayOfDictionaries();

private:
    template <char Type>
    int ReadBasicAs(const char* keyName);
    /// Stores under the path as it is now. False, and logged, when the keys have become too many.
    template <typename ConcreteValue, typename... Arguments>
    bool Store(const char* operation, Arguments&&... arguments);
    bool PayForKey(const char* operation);

    sd_bus_message* const mMessage;
    ValuesList& mValues;
    KeyBudget& mBudget;
    std::string mPath;  ///< the prefix where the walk is
};

}  // namespace mw::tern::DBusMessage
