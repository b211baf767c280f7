#pragma once

#include <string>
#include <string_view>

namespace mwl::Diagnostics {

/// The text as it may stand on the bus and on a terminal: valid UTF-8, every byte that is not part of it, of
/// a control character (those of U+0080 to U+009F too) and of a code point that is reserved as no character
/// replaced by '?'. Ends at a zero.
std::string CleanText(std::string_view text);

}  // namespace mwl::Diagnostics
