#pragma once

#include <string>
#include <string_view>

namespace ternctl {

/// Writes to standard output and sees that it has arrived. Throws Failure when it has not.
void Print(std::string_view text);
/// With an end of line.
void PrintLine(std::string_view text);
/// A line on standard error, "ternctl: TEXT", made harmless.
void Complain(std::string_view text);

}  // namespace ternctl
