#include <tern/dbus_message/value.h>

namespace mw::tern::DBusMessage {

Value::~Value() = default;

}  // namespace mw::tern::DBusMessage
