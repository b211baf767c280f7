#pragma once

namespace mwl::Log {

/// Threshold that a TERN_LOG_LEVEL text stands for: a number 0 to 7 or a level's name in any case. Null and
/// empty give `fallback`. Returns false, with `level` set to `fallback`, when the text is nonsense.
bool ParseLogLevel(const char* text, unsigned char fallback, unsigned char& level) noexcept;

}  // namespace mwl::Log
