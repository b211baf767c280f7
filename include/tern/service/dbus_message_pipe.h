#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>
#include <tern/service/message_pipe.h>

struct sd_bus_message;

namespace mw::tern {

/// A MessagePipe that carries one `sd_bus_message*` a message, as a pointer of this process: for handing
/// D-Bus messages between a worker thread and the D-Bus thread.
///
/// The pipe passes no reference: the writer holds one (sd_bus_message_ref(3)) until the reader has taken the
/// message over, and the reader releases it. sd-bus counts without locking, so a message is referenced and
/// released on the thread of its bus only: a worker that is done with a message sends it back through a pipe.
/// A message left in the pipe when that is destroyed is not released.
///
/// Thread-safety, set-up and descriptors: as MessagePipe. The operations of the base with data and size are
/// hidden on purpose, since they could break the framing.
class TERN_API DBusMessagePipe : public MessagePipe {
public:
    /// Writes the pointer. Outcomes as MessagePipe::WriteMessage.
    StatusCode WriteMessage(const sd_bus_message* message);

    /// Reads a pointer without waiting. Ok: `message` is set, and the reference is the caller's. Otherwise it
    /// is left alone; outcomes as MessagePipe::ReadMessage with a limit of 0 (ResourceUnavailable, logged,
    /// when the pipe is empty).
    StatusCode ReadMessage(sd_bus_message*& message);
};

}  // namespace mw::tern
