#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>

namespace tern::benchmarks {

/// The amount of work where that is large: `full`, or the part of it that TERN_BENCHMARK_SCALE says (a number
/// from 0 to 1; 1 when unset).
inline std::size_t Scaled(std::size_t full) {
    const char* const text = std::getenv("TERN_BENCHMARK_SCALE");
    const double scale = text != nullptr ? std::clamp(std::strtod(text, nullptr), 0.0, 1.0) : 1.0;
    return std::max<std::size_t>(1, static_cast<std::size_t>(static_cast<double>(full) * scale));
}

}  // namespace tern::benchmarks
