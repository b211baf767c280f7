#include "dbus_message/values_list_writer.h"

namespace mw::tern::DBusMessage {

bool ValuesListWriter::FindPlace(ValuesList& list, const std::string& key, Position& position) {
    position = list.mValues.lower_bound(key);
    return position == list.mValues.end() || position->first != key;
}

void ValuesListWriter::Insert(ValuesList& list, Position position, const std::string& key, Value& value) {
    list.mValues.emplace_hint(position, key, &value);
}

}  // namespace mw::tern::DBusMessage
