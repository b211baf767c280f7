#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <optional>

namespace mw::tern {

/// The first entry of a vtable that sd-bus does not accept.
struct VtableFault {
    std::size_t index = 0;  ///< 0 is the start entry
    const char* kind = "";  ///< "method", "property" and so on
    const char* member = "";
    int error = 0;  ///< sd-bus's, negative
};

/// Finds out which entry of a vtable makes sd-bus refuse it, by registering ever longer beginnings of it with
/// a connection that goes nowhere: so it is sd-bus that tells, a second member of the same name included.
/// Nothing when every entry is accepted there, or when there is no table. The texts are the table's own.
std::optional<VtableFault> FindVtableFault(const sd_bus_vtable* table);

}  // namespace mw::tern
