#include <tern/service/dbus_message_pipe.h>

namespace mw::tern {

namespace {

/// A message is the pointer itself.
constexpr unsigned int MESSAGE_SIZE = sizeof(void*);

}  // namespace

StatusCode DBusMessagePipe::WriteMessage(const sd_bus_message* message) {
    return MessagePipe::WriteMessage(&message, MESSAGE_SIZE);
}

StatusCode DBusMessagePipe::ReadMessage(sd_bus_message*& message) {
    sd_bus_message* received = nullptr;
    const StatusCode status = MessagePipe::ReadMessage(&received, MESSAGE_SIZE, 0);
    if (status == StatusCode::Ok) {
        message = received;
    }
    return status;
}

}  // namespace mw::tern
