#pragma once

/// Between the vtable entries of `Implements` and the library: one call while it is handled. Applications do
/// not need it.

#include <systemd/sd-bus.h>
#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>
#include <tern/typed/error.h>
#include <tern/typed/fault.h>

#include <cstdint>
#include <memory>

namespace mwl::Typed {

class InterfaceBase;
class ReplyToken;
struct ReplyState;
template <class R>
class Task;

/// One call of a method, or one access to a property, from sd-bus's callback to its answer. The part that
/// depends on types is in a body, a function that `Implements` makes for each member; the rest is here, once
/// for all.
///
/// A body returns 0 when all is well and there is nothing to answer but that, otherwise what one of the
/// operations below returned. It may throw: nothing goes further than the Run function that called it.
/// A std::bad_alloc is answered "org.freedesktop.DBus.Error.NoMemory", an Error as it is, anything else
/// "org.freedesktop.DBus.Error.Failed", "the service failed internally".
///
/// Every failure is logged with the caller, the path, the interface and the member: what was refused for a
/// reason that the caller receives as information, with the error's name alone, because the text may hold
/// what the caller sent; what failed inside the service as an error. Peers can provoke both at will, so an
/// interface logs ten of each kind in ten seconds at most, and then how many it left out.
///
/// D-Bus thread only.
class TERN_API Handling {
public:
    /// Does the work.
    using Body = int (*)(Handling& call);
    /// Appends the value at `value` to a message; negative when it could not.
    using Writer = int (*)(sd_bus_message* message, const void* value);

    Handling(const Handling&) = delete;
    Handling& operator=(const Handling&) = delete;

    /// A method's call. `names` are those of its arguments. Returns what sd-bus expects of a handler.
    static int RunMethod(sd_bus_message* call, void* userdata, sd_bus_error* error, Body body,
                         const char* names) noexcept;
    /// As RunMethod, once the caller is known to have the capability; `handler` is the entry's own, for the
    /// time when that has been found out.
    static int RunCheckedMethod(sd_bus_message* call, void* userdata, sd_bus_error* error, Body body,
                                const char* names, int capability, sd_bus_message_handler_t handler) noexcept;
    /// Reading of a property: the body appends the value to `GetMessage()`.
    static int RunGetter(const char* path, const char* member, sd_bus_message* reply, void* userdata,
                         sd_bus_error* error, Body body) noexcept;
    /// Writing of a property: the body reads the value from `GetMessage()`.
    static int RunSetter(const char* path, const char* member, sd_bus_message* value, void* userdata,
                         sd_bus_error* error, Body body) noexcept;

    /// The call; where a property is read the reply that is being written.
    sd_bus_message* GetMessage() const noexcept { return mMessage; }
    /// Whose member it is.
    InterfaceBase& GetInterface() const noexcept { return mInterface; }

    /// Answers with a value, or, where a property is read, appends it to the reply.
    int Answer(Writer writer, const void* value);
    /// Answers with an error.
    int Refuse(const Error& error) noexcept;
    /// Ok is no refusal: returns 0 then.
    int Refuse(StatusCode status);
    /// Reading the argument `index`, or the value of the property, failed with `result`.
    int RefuseArgument(unsigned index, int result, const Fault& fault);
    /// Takes the call over to be answered later. The number for its Reply, or 0: refused. From then on what
    /// the body throws is logged and changes nothing.
    std::uint64_t Defer(std::shared_ptr<ReplyState>& state) noexcept;
    /// The interface keeps what answers a call that was taken over, and ends it when it leaves the bus; now
    /// if it has left.
    void Keep(Task<void>&& task) noexcept;
    /// Answers a call that was taken over with the error, and logs as for one that is answered immediately;
    /// does nothing for one that has been answered.
    static void RefuseLater(ReplyToken& reply, InterfaceBase& interface, const Error& error) noexcept;
    /// The same with the exception that is handled now.
    static void RefuseExceptionLater(ReplyToken& reply, InterfaceBase& interface) noexcept;
    /// Notes that properties of the interface have changed, see InterfaceBase.
    void MarkChanged(std::uint64_t properties) noexcept;
    /// The result of a body that could not take the call over.
    static constexpr int REFUSED = -1;
    /// The result of a body when the call is answered, or will be.
    static constexpr int DONE = 1;

private:
    enum class Of { Method, Getter, Setter };
    struct Names {
        const char* sender;
        const char* path;
        const char* interface;
        const char* member;
    };

    Handling(Of of, sd_bus_message* message, void* userdata, sd_bus_error* error, const char* names) noexcept;
    int Run(Body body) noexcept;
    int RefuseException() noexcept;
    int Set(const char* name, const char* text) noexcept;
    Names GetNames() const noexcept;
    template <class Refusal>
    static void AnswerLater(ReplyToken& reply, InterfaceBase& interface, Refusal refuse) noexcept;
    int FailInside(const char* what, int error) noexcept;
    void LogRefusal(int result) noexcept;

    const Of mOf;
    sd_bus_message* const mMessage;
    InterfaceBase& mInterface;
    sd_bus_error* const mError;
    /// Of the arguments of a method.
    const char* const mNames;
    const char* mPath = nullptr;
    const char* mMember = nullptr;
    bool mIsDeferred = false;
};

}  // namespace mwl::Typed
