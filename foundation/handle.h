#pragma once

#include <memory>

namespace mwl {

/// Calls the C function `Release` as the deleter of a std::unique_ptr.
template <auto Release>
struct ReleasedBy {
    template <typename T>
    void operator()(T* handle) const noexcept {
        static_cast<void>(Release(handle));
    }
};

/// Owner of one handle of a C library, released by that library's own function:
/// `using BusMessage = Handle<sd_bus_message, sd_bus_message_unref>;`
template <typename T, auto Release>
using Handle = std::unique_ptr<T, ReleasedBy<Release>>;

}  // namespace mwl
