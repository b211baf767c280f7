#pragma once

#include <tern/dbus_message/values_list.h>

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
        const auto place = list.mValues.lower_bound(key);
        if (place != list.mValues.end() && place->first == key) {
            return;
        }
        auto value = std::make_unique<ConcreteValue>(std::forward<Arguments>(arguments)...);
        list.mValues.emplace_hint(place, key, value.get());
        static_cast<void>(value.release());  // the list's now
    }
};

}  // namespace mw::tern::DBusMessage
