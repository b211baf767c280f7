#pragma once

#include <string>
#include <vector>

#include "failure.h"

namespace tern::test {

/// File names, as they begin, of the libraries whose calls fail.
inline const std::string LOGGER_LIBRARY = "libtern-basic-log.so";
/// What the typed layer's headers make in an author's program, see typed_service.h.
inline const std::string TYPED_SERVICE = "libtern-faults-typed.so";
inline const std::vector<std::string> OUR_LIBRARIES = {"libtern-dbus-service.so", "libtern-dbus-typed.so",
                                                       TYPED_SERVICE, LOGGER_LIBRARY};

/// Every function that our libraries import and that can fail, each with the errors that are plausible for
/// it.
const std::vector<Faultable>& Catalogue();

/// Why an imported function is not in the catalogue; null when nothing is known about it.
const char* ReasonForExemption(const std::string& name);

/// Prints every import of our libraries that is neither in the catalogue nor exempt, and every line of the
/// catalogue and of the exemptions that no import answers to. True when there is none.
bool CatalogueIsComplete();

}  // namespace tern::test
