#pragma once

#include <tern/dbus_message/values_list.h>

#include <cstddef>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "dbus_message/parse_budget.h"

namespace mw::tern::DBusMessage {

/// The one place that puts values into a list. Here beside the public adders so that a reader can build a
/// value where it will stay, without a temporary of its own, and within its budget.
class ValuesListWriter {
public:
    /// Builds a `ConcreteValue` from the arguments and stores it under `key`, at the cost of one node and one
    /// object. When the key is there already nothing is built.
    template <typename ConcreteValue, typename... Arguments>
    static void Add(ValuesList& list, const std::string& key, const Arguments&... arguments) {
        Position position;
        if (FindPlace(list, key, position)) {
            Build<ConcreteValue>(list, position, key, arguments...);
        }
    }

    /// As Add, and true, while the budget has what it takes; otherwise nothing is built, `operation` is in
    /// the message that says so, and the result is false. A key that is there already is paid for too:
    /// looking it up costs as much as its length.
    template <typename ConcreteValue, typename... Arguments>
    static bool AddWithin(ParseBudget& budget, const char* operation, ValuesList& list,
                          const std::string& key, const Arguments&... arguments) {
        if (!budget.Take(MemoryBudget::Text(key.size()), operation)) {
            return false;
        }
        Position position;
        if (FindPlace(list, key, position)) {
            const std::size_t cost =
                NODE + MemoryBudget::Allocation(sizeof(ConcreteValue)) + (TextOf(arguments) + ... + 0);
            if (!budget.Take(cost, operation)) {
                return false;
            }
            Build<ConcreteValue>(list, position, key, arguments...);
        }
        return true;
    }

private:
    using Map = std::map<std::string, Value*>;
    using Position = Map::iterator;

    /// The map's node for an entry: the entry after a colour and three pointers.
    static constexpr std::size_t NODE = MemoryBudget::Allocation(4 * sizeof(void*) + sizeof(Map::value_type));

    /// The memory that an argument needs beside the object.
    static std::size_t TextOf(const char* text) { return MemoryBudget::Text(strlen(text)); }
    template <typename Number>
    static std::size_t TextOf(const Number&) {
        return 0;
    }

    template <typename ConcreteValue, typename... Arguments>
    static void Build(ValuesList& list, Position position, const std::string& key,
                      const Arguments&... arguments) {
        auto value = std::make_unique<ConcreteValue>(arguments...);
        Insert(list, position, key, *value);
        static_cast<void>(value.release());  // the list's now
    }

    // The part that is the same for every type, compiled once.
    /// Where `key` belongs; false when it is there already.
    static bool FindPlace(ValuesList& list, const std::string& key, Position& position);
    static void Insert(ValuesList& list, Position position, const std::string& key, Value& value);
};

}  // namespace mw::tern::DBusMessage
