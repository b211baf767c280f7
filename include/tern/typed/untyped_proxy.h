#pragma once

/// An object of another service whose interfaces become known while the program runs: `UntypedProxy`.

#include <systemd/sd-bus.h>
#include <tern/foundation/api.h>
#include <tern/typed/any.h>
#include <tern/typed/bus.h>
#include <tern/typed/call.h>
#include <tern/typed/introspection_model.h>
#include <tern/typed/remote.h>
#include <tern/typed/subscription.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace mwl::Typed {

/// An object of a peer, for programs that learn interfaces while they run, such as gateways and explorers. A
/// program that knows an interface has a contract of it and a `Proxy`: there the compiler makes the checks
/// that are made here while the program runs. A small value; copies are of the same object and share the
/// time-out.
///
///     const UntypedProxy room(mBus, "com.example.Thermostat", "/com/example/Thermostat");
///     Outcome<Introspection::Node> what = co_await room.Introspect();
///     Outcome<std::vector<Any>> path = co_await room.Call("com.example.Thermostat1", "ExportLog", "s",
///                                                         {Any::From(std::string("pw"))});
///     Outcome<Any> target = co_await room.Get("com.example.Thermostat1", "Target");
///
/// Nothing is sent yet, see `Call`. Everything else in `Call` is true here as well: its outcomes, `Within`,
/// `Then`, and `Detach`, which calls a method that nobody answers. A name that is not valid for an interface
/// or a member is in the outcome, "org.freedesktop.DBus.Error.InvalidArgs".
///
/// Values are `Any`s and have their limits: no file descriptors, in one message no more than MAX_ELEMENTS
/// values in all, at most Any::MAX_NESTING containers inside each other. A reply beyond them is
/// "mwl.Typed.Error.WrongReply", a signal beyond them is dropped, counted and logged as one of a wrong type.
///
/// D-Bus thread only. It may outlive the bus: calls end with `Stopping` then. Everything throws
/// std::bad_alloc.
class TERN_API UntypedProxy {
public:
    /// See Remote.
    UntypedProxy(const Bus& bus, std::string destination, std::string path);
    /// Of an object that others know already. REQUIRES: not null.
    explicit UntypedProxy(std::shared_ptr<Remote> remote) noexcept;

    /// A method's call. `signature` is that of its arguments, as introspection reports it
    /// (Introspection::Method::GetInSignature). Each of `arguments` is of the type in its place; where that
    /// is "v" any value is put into a variant, unless it is one. The result has a value for each out
    /// argument, as it is: of one of type "v" a variant, whose content is `At(0)`.
    ///
    /// InvalidArgs, and nothing is sent: "'x)' is no signature", "1 argument where 2 are wanted",
    /// "argument 2: 'u' where 's' is wanted", and for an empty one "argument 1: no value".
    Typed::Call<std::vector<Any>> Call(const std::string& interface, const std::string& member,
                                       std::string_view signature,
                                       const std::vector<Any>& arguments = {}) const;
    /// A property's value, not within its variant.
    Typed::Call<Any> Get(const std::string& interface, const std::string& property) const;
    /// The values of all properties of an interface, except for EXPLICIT ones; with an empty name, of all
    /// interfaces that the service takes it for.
    Typed::Call<std::map<std::string, Any>> GetAll(const std::string& interface) const;
    /// Writes a property. `value` is of the property's type; of one of type "v" a variant.
    Typed::Call<void> Set(const std::string& interface, const std::string& property, const Any& value) const;
    /// The introspection, as the peer reports it. The report is read on this thread, which took some 80 ms
    /// for a MiB on a desktop machine; usual objects report a few KiB. A text that is not sound, or is larger
    /// than Introspection::MAX_SIZE, is "mwl.Typed.Error.WrongReply", with what is wrong with it; where
    /// libexpat cannot be loaded it is NotSupported; see Introspection::Parse.
    Typed::Call<Introspection::Node> Introspect() const;
    /// Has `handler` called with the values of each such signal, whatever their types; see Subscription.
    /// REQUIRES: it is not empty.
    Subscription On(const std::string& interface, const std::string& signal,
                    std::function<void(const std::vector<Any>& values)> handler) const;

    /// How long replies are waited for, of calls created from now on, here and with copies; initially 5 s,
    /// see Remote::SetTimeout.
    void SetTimeout(std::chrono::milliseconds timeout) noexcept { mRemote->SetTimeout(timeout); }
    /// The state that calls and subscriptions share. Any thread.
    const std::shared_ptr<Remote>& GetRemote() const noexcept { return mRemote; }

private:
    std::shared_ptr<Remote> mRemote;
};

}  // namespace mwl::Typed
