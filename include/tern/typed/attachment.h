#pragma once

/// Between an interface of the typed layer and the bus that it is on. Applications do not need it.

#include <systemd/sd-bus.h>

#include <memory>

namespace mwl::Typed {

class InterfaceBase;
struct ReplyState;

/// The services of the bus that an interface was attached to (InterfaceBase::Attach). There may be one for a
/// whole bus or one for each interface, as suits the bus: InterfaceBase::GetAttachment gives back the one
/// that was attached.
///
/// D-Bus thread only. Lives as long as an interface is attached to it. Nothing here throws.
class Attachment {
public:
    Attachment(const Attachment&) = delete;
    Attachment& operator=(const Attachment&) = delete;

    /// The connection; null once it is closed.
    virtual sd_bus* GetBus() noexcept = 0;

    /// A property of `interface` has changed that is to be announced, and none was waiting before. Sooner or
    /// later the bus calls InterfaceBase::TakeChanges; until then it hears nothing of further changes.
    virtual void OnChanged(InterfaceBase& interface) noexcept = 0;

    /// Where calls wait that are answered later (TakeOver); null when none are taken any more. A new
    /// reference: the tokens of such calls outlive the bus.
    virtual std::shared_ptr<ReplyState> GetReplies() noexcept = 0;

    /// Whether the sender of `call` may call a member that is `Checked`: its user is root or the service's,
    /// or it has the capability `capability` (capabilities(7)).
    ///
    /// Positive: it may.
    /// 0: not known yet. The bus has taken a reference of `call` and asks. Once it knows, it winds the
    /// message back to its beginning and calls `handler` with it and `userdata` as sd-bus would have, and
    /// answers with the error that comes back, if any; here the handler now learns the answer. A call whose
    /// interface is detached meanwhile is answered as an unknown object.
    /// Negative: it may not, or it cannot be found out; `error` has been set.
    virtual int CheckCaller(InterfaceBase& interface, sd_bus_message* call, int capability,
                            sd_bus_message_handler_t handler, void* userdata,
                            sd_bus_error* error) noexcept = 0;

protected:
    Attachment() = default;
    ~Attachment() = default;
};

}  // namespace mwl::Typed
