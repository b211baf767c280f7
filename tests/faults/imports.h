#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace tern::test {

/// One function that a loaded library takes from elsewhere.
struct Import {
    const char* name;  ///< as in the library's symbol table
    void** slot;       ///< where the library keeps the function's address; ForEachImport makes it writable
};

/// Calls `take` for each place in which the loaded library whose file name begins with `library` keeps the
/// address of a foreign function. A function may have two places: one to call it, one to pass it on. Throws
/// std::runtime_error when no such library is loaded.
void ForEachImport(const std::string& library, const std::function<void(const Import&)>& take);

/// Where a loaded library lies in memory.
struct AddressRange {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;

    bool Holds(const void* address) const {
        const auto number = reinterpret_cast<std::uintptr_t>(address);
        return begin <= number && number < end;
    }
};

/// Throws std::runtime_error when no such library is loaded.
AddressRange RangeOf(const std::string& library);

}  // namespace tern::test
