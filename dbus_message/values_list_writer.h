#pragma once

#include <tern/dbus_message/values_list.h>

#include <map>
#include <memory>
#include <string>
#include <utility>

namespace mw::tern::DBusMessage {

/// The one place that puts values into a list. Here beside the public adders so that a reader can build a
/// value where it will stay, without a temporary of its own.
class ValuesListWriter {
public:
    /// Builds a `ConcreteValue` from the arguments and stores it under `key`, at the cost of one node and one
    /// object. When the key is there already nothing is built.
    template <typename ConcreteValue, typename... Arguments>
    static void Add(ValuesList& list, const std::string& key, Arguments&&... arguments) {
        Position position;
        if (FindPlace(list, key, position)) {
            auto value = std::make_unique<ConcreteValue>(std::forward<Arguments>(arguments)...);
            Insert(list, position, key, *value);
            static_cast<void>(value.release());  // the list's now
        }
    }

private:
    using Position = std::map<std::string, Value*>::iterator;

    // What is the same for every type, compiled once.
    /// Where `key` belongs; false when it is there already.
    static bool FindPlace(ValuesList& list, const std::string& key, Position& position);
    static void Insert(ValuesList& list, Position position, const std::string& key, Value& value);
};

}  // namespace mw::tern::DBusMessage
