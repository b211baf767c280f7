#include <tern/service/dbus_message_pipe.h>

namespace mw::tern {

StatusCode DBusMessagePipe::WriteMessage(const sd_bus_message* message) {
    return MessagePipe::WriteMessage(&message, sizeof message);
}

StatusCode DBusMessagePipe::ReadMessage(sd_bus_message*& message) {
    sd_bus_message* received = nullptr;
    const StatusCode status = MessagePipe::ReadMessage(&received, sizeof received, 0);
    if (status == StatusCode::Ok) {
        message = received;
    }
    return status;
}

}  // namespace mw::tern
