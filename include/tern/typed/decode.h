#pragma once

/// From the reply of a call to what the caller wants to know. For replies of calls that were made by hand;
/// those of a `Proxy` do it by themselves.

#include <systemd/sd-bus.h>
#include <tern/foundation/api.h>
#include <tern/typed/codec.h>
#include <tern/typed/contract.h>
#include <tern/typed/error.h>
#include <tern/typed/owned.h>

#include <cerrno>
#include <new>
#include <tuple>
#include <type_traits>

namespace mwl::Typed {

class Remote;

namespace Detail {

/// The error that the reply is, or that it is of another signature than `wanted`; none when it can be read.
[[gnu::cold]] TERN_API Error ErrorOfReply(sd_bus_message* reply, const char* wanted, const Remote* remote);
/// Whether the reply is a result of this signature.
TERN_API bool IsResult(sd_bus_message* reply, const char* signature) noexcept;
/// Reading the result `index` of `count` failed with `result`.
[[gnu::cold]] TERN_API Error ErrorOfReading(int result, const Fault& fault, unsigned index, unsigned count,
                                            const Remote* remote);

template <class R>
struct ResultReader {
    static constexpr unsigned COUNT = 1;
    static int Read(sd_bus_message* reply, R& value, Fault& fault, unsigned&) {
        return Codec<R>::Read(reply, value, fault);
    }
};
template <class... T>
struct ResultReader<Results<T...>> {
    static constexpr unsigned COUNT = sizeof...(T);
    static int Read([[maybe_unused]] sd_bus_message* reply, Results<T...>& values,
                    [[maybe_unused]] Fault& fault, [[maybe_unused]] unsigned& index) {
        int r = 0;
        std::apply(
            [&](T&... value) {
                static_cast<void>(
                    ((r = Codec<T>::Read(reply, value, fault), index += r >= 0 ? 1U : 0U, r >= 0) && ...));
            },
            static_cast<std::tuple<T...>&>(values));
        return r;
    }
};

/// Reads what stands at the reply's position.
template <class R>
Outcome<R> ReadResult(sd_bus_message* reply, const Remote* remote) {
    static_assert(OWNS<R>, "what is read from a reply has to own what it holds: std::string for a view");
    try {
        R value{};
        Fault fault;
        unsigned index = 0;
        if (const int r = ResultReader<R>::Read(reply, value, fault, index); r < 0) {
            return ErrorOfReading(r, fault, index, ResultReader<R>::COUNT, remote);
        }
        return value;
    } catch (const std::bad_alloc&) {
        return ErrorOfReading(-ENOMEM, Fault(), 0, ResultReader<R>::COUNT, remote);
    }
}

}  // namespace Detail

/// The content of a reply: its result as an R, or the error that it is. R is void, one type, or
/// `Results<...>` of several. The position of the message is its beginning; one thread at a time. `remote`,
/// if not null, is the object that answered: its bus counts and logs replies that are not what is wanted;
/// D-Bus thread then.
///
/// The result.
/// The error of the peer, with its name and text; see Error::FromReply.
/// "mwl.Typed.Error.WrongReply", "a reply of 'u' where 's' is wanted": another signature.
/// "mwl.Typed.Error.WrongReply", "the result.Mode: 7 is not one of its values": not a value of the type.
/// "org.freedesktop.DBus.Error.NoMemory", or "...LimitsExceeded" where descriptors ran out: the result cannot
/// be held here.
/// Exceptions of a codec of one's own, except std::bad_alloc, pass through.
template <class R>
Outcome<R> Decode(sd_bus_message* reply, const Remote* remote = nullptr) {
    if (!Detail::IsResult(reply, OutArguments<R>::SIGNATURE.text)) {
        return Detail::ErrorOfReply(reply, OutArguments<R>::SIGNATURE.text, remote);
    }
    if constexpr (std::is_void_v<R>) {
        return {};
    } else {
        return Detail::ReadResult<R>(reply, remote);
    }
}

/// The same for a result of type `v` that is to hold a T, as the value of a property does.
///
/// "mwl.Typed.Error.WrongReply", "the result: 'u' where 's' is wanted": another type is in it.
template <class T>
Outcome<T> DecodeVariant(sd_bus_message* reply, const Remote* remote = nullptr) {
    if (!Detail::IsResult(reply, "v")) {
        return Detail::ErrorOfReply(reply, "v", remote);
    }
    Fault fault;
    if (const int r = Detail::EnterVariant(reply, SIGNATURE<T>.text, fault); r < 0) {
        return Detail::ErrorOfReading(r, fault, 0, 1, remote);
    }
    return Detail::ReadResult<T>(reply, remote);
}

}  // namespace mwl::Typed
