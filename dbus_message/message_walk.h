#pragma once

#include <systemd/sd-bus.h>
#include <tern/dbus_message/values_list.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "dbus_message/parse_budget.h"

namespace mw::tern::DBusMessage {

/// The text before each name in a key.
inline constexpr char SEPARATOR = '_';

/// The work of Parser: one walk over (a part of) a message, into a list. It keeps the path to where it is in
/// one buffer, which grows and shrinks with each step; a key is copied only into the list.
///
/// Results, messages and keys are described at Parser, whose operations have the same names. Names are never
/// null here.
class MessageWalk {
public:
    /// All are borrowed, except for the prefix, which is copied.
    MessageWalk(sd_bus_message* message, ValuesList& values, ParseBudget& budget, const std::string& prefix)
        : mMessage(message), mValues(values), mBudget(budget), mPath(prefix) {}
    ~MessageWalk() { mBudget.GiveBack(mPathCost); }
    MessageWalk(const MessageWalk&) = delete;
    MessageWalk& operator=(const MessageWalk&) = delete;

    /// A basic type that a list can keep, by its letter. Nothing is read, and there is no result, for any
    /// other letter.
    std::optional<int> ReadBasic(char type, const char* keyName);
    int ReadISI(const char* keyName);
    int ReadArrayOfStrings(const char* keyName);
    int ReadVariant(const char* keyName);
    int ReadVariantContent(const char* keyName, const char* contents);
    int ReadArrayOfDictionaries();
    int ParseArrayOfDictionaries();

private:
    /// Room of the path that is not paid for; only a message that means to makes a longer one.
    static constexpr std::size_t FREE_ROOM = std::size_t{4} * 1024 * 1024;

    template <char Type>
    int ReadBasicAs(const char* keyName);
    /// Stores under the path as it is now. False, and logged, when the memory for it is not left.
    template <typename ConcreteValue, typename... Arguments>
    bool Store(const char* operation, const Arguments&... arguments);
    /// Makes room for a name at the path's end, and for so many bytes behind it. False, and logged, when the
    /// memory for it is not left.
    bool MakeRoom(const char* operation, std::string_view name, std::size_t behind = 0) {
        const std::size_t length = mPath.size() + 1 + name.size() + behind;
        return length <= mPath.capacity() || GrowPath(operation, length);
    }
    bool GrowPath(const char* operation, std::size_t length);
    void LogContentFailure(const char* keyName, int r);

    sd_bus_message* const mMessage;
    ValuesList& mValues;
    ParseBudget& mBudget;
    std::string mPath;          ///< the prefix where the walk is
    std::size_t mPathCost = 0;  ///< what was paid for it
};

}  // namespace mw::tern::DBusMessage
