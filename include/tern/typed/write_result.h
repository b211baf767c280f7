#pragma once

// Values one behind the other: results of methods and arguments of signals. Applications do not need it.

#include <tern/typed/codec.h>

#include <tuple>

namespace mwl::Typed::Detail {

/// Appends each value. Negative when a value cannot be sent; the values after it are not appended.
template <class... V>
int WriteEach([[maybe_unused]] sd_bus_message* message, const V&... value) {
    int r = 0;
    static_cast<void>(((r = Codec<V>::Write(message, value), r >= 0) && ...));
    return r;
}

/// Appends what a method answers with: one value, or each of several.
template <class R>
int WriteResult(sd_bus_message* reply, const R& result) {
    return Codec<R>::Write(reply, result);
}
template <class... T>
int WriteResult(sd_bus_message* reply, const Results<T...>& results) {
    return std::apply([reply](const T&... value) { return WriteEach(reply, value...); },
                      static_cast<const std::tuple<T...>&>(results));
}

}  // namespace mwl::Typed::Detail
