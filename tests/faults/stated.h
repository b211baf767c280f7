#pragma once

#include <string>

namespace tern::test {

/// Why it is stated that this failure in this scenario comes out in a way that otherwise may not be,
/// `outcome` as it is called in the report ("SILENT", ...); null when it is not stated.
const char* ReasonFor(const std::string& outcome, const std::string& scenario, const std::string& function,
                      const std::string& failure);

}  // namespace tern::test
