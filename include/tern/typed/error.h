#pragma once

/// The outcome of a D-Bus call: `Error`, and `Outcome<T>`, a value or an error.

#include <systemd/sd-bus.h>
#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

#include <concepts>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

namespace mwl::Typed {

using mw::tern::StatusCode;

/// An error as it travels over D-Bus: a name for programs and a text for people. A handler returns it in an
/// `Outcome` or throws it, and the caller gets it as it is; a client gets it in the `Outcome` of its call.
///
/// Both parts are fit to be sent, whatever they were created from: a message bus drops the connection of a
/// service that sends it anything else. A name that is no D-Bus error name is replaced by
/// "org.freedesktop.DBus.Error.Failed" and put in front of the text; in the text each byte that is not part
/// of UTF-8 text is replaced by a question mark, as is NUL. So are the bytes of what is reserved and stands
/// for no character, such as U+FFFE: sd-bus does not send them.
///
/// A value: immutable except by assignment, any thread. Its creation allocates and may throw std::bad_alloc.
class TERN_API Error {
public:
    /// `name` has at least two parts, of letters, digits and underscores, as in "com.example.Error.TooHot".
    Error(std::string name, std::string_view text);
    /// The error of a status. The text is the status's name.
    ///
    /// AccessDenied, NotPermitted: "org.freedesktop.DBus.Error.AccessDenied"
    /// InvalidArgument: "org.freedesktop.DBus.Error.InvalidArgs"
    /// NotSupported: "org.freedesktop.DBus.Error.NotSupported"
    /// OutOfMemory: "org.freedesktop.DBus.Error.NoMemory"
    /// Timeout: "org.freedesktop.DBus.Error.Timeout"
    /// ResourceUnavailable: "org.freedesktop.DBus.Error.LimitsExceeded"
    /// Any other: "mwl.StatusCode." and its name, "mwl.StatusCode.Number77" for one outside the list. Ok is
    /// no error; it counts as Failure.
    Error(StatusCode status);  // NOLINT(google-explicit-constructor): `return StatusCode::Busy;` is to work
    /// The same with a text of one's own.
    Error(StatusCode status, std::string_view text);

    /// "org.freedesktop.DBus.Error.InvalidArgs": an argument is not what the method takes.
    static Error InvalidArgs(std::string_view text);
    /// "org.freedesktop.DBus.Error.AccessDenied": this caller may not do this.
    static Error AccessDenied(std::string_view text);
    /// "org.freedesktop.DBus.Error.NotSupported": this service cannot do it, whoever asks.
    static Error NotSupported(std::string_view text);
    /// "org.freedesktop.DBus.Error.NoMemory"
    static Error NoMemory(std::string_view text);
    /// "org.freedesktop.DBus.Error.Timeout": something that the service waited for did not come.
    static Error Timeout(std::string_view text);
    /// "org.freedesktop.DBus.Error.LimitsExceeded": too much at a time; later it may work.
    static Error LimitsExceeded(std::string_view text);
    /// "org.freedesktop.DBus.Error.Failed": anything else.
    static Error Failed(std::string_view text);
    /// "org.freedesktop.DBus.Error.NoReply": the service leaves without an answer.
    static Error NoReply(std::string_view text);
    /// "mwl.Typed.Error.WrongReply": the reply's signature is not that of the contract.
    static Error WrongReply(std::string_view text);

    /// The error of a failed call as its reply carries it. REQUIRES: `reply` is an error message
    /// (sd_bus_message_is_method_error(3)); for any other the result is `Failed`.
    static Error FromReply(sd_bus_message* reply);
    /// The error that sd-bus gave, and `returned`, the negative number that came with it. That number decides
    /// where `error` is not set.
    static Error FromBus(const sd_bus_error& error, int returned);

    /// Never empty.
    const std::string& GetName() const { return mName; }
    /// For people; may be empty.
    const std::string& GetText() const { return mText; }

    /// The status that comes nearest; the way back from `Error(StatusCode)`.
    ///
    /// "mwl.StatusCode.<Name>": that status, whichever it is.
    /// AccessDenied, AuthFailed, InteractiveAuthorizationRequired: AccessDenied
    /// InvalidArgs, InvalidSignature, InconsistentMessage, BadAddress, MatchRuleInvalid: InvalidArgument
    /// NotSupported, UnknownMethod, UnknownInterface, UnknownProperty: NotSupported
    /// PropertyReadOnly: NotPermitted
    /// NoMemory: OutOfMemory
    /// Timeout, TimedOut: Timeout
    /// LimitsExceeded: ResourceUnavailable
    /// ServiceUnknown, NameHasNoOwner, UnknownObject, FileNotFound, MatchRuleNotFound: NotFound
    /// FileExists, AddressInUse, ObjectPathInUse: AlreadyExists
    /// IOError, Disconnected, NoServer, NoNetwork: IoError
    /// NoReply: of an Error from FromReply Timeout when this process's own sd-bus gave up waiting, IoError
    /// when it lost the connection meanwhile, otherwise NotFound, because the message bus reports in this way
    /// that the peer has gone. The name is the same for all.
    /// "System.Error.E…", which sd-bus makes from an error number: the status of that number.
    /// Any other, "org.freedesktop.DBus.Error.Failed" included: Failure
    StatusCode GetStatus() const;

    /// Name and text are the same.
    friend bool operator==(const Error& a, const Error& b) {
        return a.mName == b.mName && a.mText == b.mText;
    }

private:
    std::string mName;
    std::string mText;
    /// The meaning of NoReply here, which the name does not show.
    StatusCode mNoReply = StatusCode::NotFound;
};

/// A value or an error: what a handler may return, and what a client's call ends with. Not to be ignored.
///
/// Created from a value, or from anything that converts to one; from an `Error`; from a `StatusCode`, which
/// is always the error of that status, even where the value's type is a number.
///
/// A value: one thread at a time.
///
///     Outcome<double> GetLevel() {
///         if (!mIsConnected) return StatusCode::NotInitialized;
///         return mLevel;
///     }
template <class T>
class [[nodiscard]] Outcome {
    static_assert(!std::is_reference_v<T>, "an Outcome holds a value, not a reference");
    static_assert(!std::same_as<std::remove_cv_t<T>, Error> && !std::same_as<std::remove_cv_t<T>, StatusCode>,
                  "errors are not the value of an Outcome: say Outcome<void>");

    template <class U>
    static constexpr bool IS_VALUE =
        std::is_constructible_v<T, U>&& std::is_convertible_v<U, T> &&
        !std::same_as<std::remove_cvref_t<U>, Error> && !std::same_as<std::remove_cvref_t<U>, StatusCode> &&
        !std::same_as<std::remove_cvref_t<U>, Outcome>;

public:
    // NOLINTBEGIN(google-explicit-constructor,bugprone-forwarding-reference-overload): constrained; made by
    // `return`.
    /// The value.
    template <class U = T>
    requires IS_VALUE<U> Outcome(U&& value) : mContent(std::in_place_index<0>, std::forward<U>(value)) {}
    /// The error.
    Outcome(Error error) : mContent(std::in_place_index<1>, std::move(error)) {}
    /// The error of the status.
    Outcome(StatusCode error) : mContent(std::in_place_index<1>, error) {}
    // NOLINTEND(google-explicit-constructor,bugprone-forwarding-reference-overload)

    /// Whether there is a value.
    bool IsOk() const noexcept { return mContent.index() == 0; }

    /// The value. REQUIRES: IsOk(); std::bad_variant_access otherwise.
    T& operator*() & { return std::get<0>(mContent); }
    /// As above.
    const T& operator*() const& { return std::get<0>(mContent); }
    /// As above.
    T&& operator*() && { return std::get<0>(std::move(mContent)); }
    /// As above.
    T* operator->() { return &std::get<0>(mContent); }
    /// As above.
    const T* operator->() const { return &std::get<0>(mContent); }

    /// The error. REQUIRES: !IsOk(); std::bad_variant_access otherwise.
    const Error& GetError() const { return std::get<1>(mContent); }

private:
    std::variant<T, Error> mContent;
};

/// Done, or an error. Created from nothing, which is success, from an `Error`, or from a `StatusCode`, of
/// which Ok is success.
template <>
class [[nodiscard]] Outcome<void> {
public:
    /// Done.
    Outcome() = default;
    // NOLINTBEGIN(google-explicit-constructor): made by `return`
    /// The error.
    Outcome(Error error) : mError(std::move(error)) {}
    /// Done if Ok, else the error of the status.
    Outcome(StatusCode status) {
        if (status != StatusCode::Ok) {
            mError.emplace(status);
        }
    }
    // NOLINTEND(google-explicit-constructor)

    /// Whether it is done.
    bool IsOk() const noexcept { return !mError.has_value(); }

    /// The error. REQUIRES: !IsOk(); std::bad_optional_access otherwise.
    const Error& GetError() const { return mError.value(); }

private:
    std::optional<Error> mError;
};

}  // namespace mwl::Typed
