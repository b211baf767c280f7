#pragma once

#include <systemd/sd-bus.h>
#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>
#include <tern/service/dbus_interface.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace mwl::Typed {

using mw::tern::StatusCode;

class Attachment;

/// The part of every typed interface that does not depend on its contract: the bus and the path that it is
/// attached to, and the properties whose changes wait to be announced. Applications derive from `Implements`,
/// which derives from this.
///
/// D-Bus thread only. The owner is whoever exports it, and detaches it before it is destroyed.
class TERN_API InterfaceBase : public mw::tern::DBusInterface {
public:
    /// An interface has at most so many properties that announce their changes.
    static constexpr std::size_t MAX_ANNOUNCED = 64;

    ~InterfaceBase() override;

    /// This object, as the typed handlers expect it.
    void* GetUserData() override;

    /// The bus's part. `attachment` outlives the attachment; `path` is the object's. Changes of the time
    /// before are forgotten: nobody has seen a value yet. Attached once more, it belongs to the second alone.
    void Attach(Attachment& attachment, std::string path);
    /// From now on changes are not noted and signals not sent; handlers that are tasks and still run end
    /// where they wait. Harmless when not attached.
    void Detach() noexcept;
    /// As given to Attach; null when not attached.
    Attachment* GetAttachment() const noexcept;
    /// As given to Attach; empty when not attached.
    const std::string& GetPath() const noexcept;

    /// Names of changed properties, null behind the last one: what sd_bus_emit_properties_changed_strv(3)
    /// takes. The texts are the vtable's.
    using Names = std::array<char*, MAX_ANNOUNCED + 1>;
    /// Puts the names of the properties that have changed since the last time, in the vtable's order, into
    /// `names`, and forgets the changes. Returns how many there are.
    std::size_t TakeChanges(Names& names) noexcept;

protected:
    /// `name` is the interface's.
    explicit InterfaceBase(const char* name);

    /// Notes that properties have changed: a bit for each, by its number among those of the vtable that
    /// announce their changes. Does nothing when the interface is not attached, which is logged once.
    void MarkChanged(std::uint64_t properties) noexcept;

    /// Appends the values at `values` to a message; negative when it could not.
    using Writer = int (*)(sd_bus_message* message, const void* values);
    /// Sends a signal of this interface, filled by `writer`; nothing is sent when that fails.
    ///
    /// Ok: it is in the connection's queue.
    /// NotInitialized: the interface is not attached; logged once.
    /// InvalidArgument: a value cannot be sent, such as text that is not UTF-8; logged.
    /// Otherwise the status of sd-bus's error; logged.
    /// Exceptions of `writer` pass through.
    StatusCode SendSignal(const char* member, Writer writer, const void* values);

private:
    friend class Handling;
    struct State;
    bool IsAlone() noexcept;
    void LogUnsent(const char* member, int error) noexcept;
    std::unique_ptr<State> mState;
};

}  // namespace mwl::Typed
