#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>

namespace mw::tern {

/// Why sd-bus does not accept a vtable.
struct VtableFault {
    int error = 0;          ///< sd-bus's, negative; 0 when the table is accepted
    std::size_t index = 0;  ///< of the first entry that is not accepted; 0 is the start entry
    const char* kind =
        nullptr;  ///< of that entry, "method", "property" and so on; null when none can be named
    const char* member = nullptr;  ///< of that entry
};

/// Asks sd-bus whether it accepts a vtable, on a connection of its own that goes nowhere: sd-bus 252 forgets
/// to take the members back that it has registered before it refuses one, and a peer that calls them has it
/// use freed memory. So a table is registered with the service's connection only when it is sound.
///
/// Which entry is at fault is found by registering ever longer beginnings of the table: so sd-bus itself
/// finds the fault, a second member of the same name included. No error when the table is accepted, or when
/// there is no memory to find out. The texts are the table's own.
VtableFault FindVtableFault(const sd_bus_vtable* table);

}  // namespace mw::tern
