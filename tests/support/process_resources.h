#pragma once

#include <cstddef>

namespace tern::test {

/// Open descriptors of this process.
std::size_t CountDescriptors();
/// Threads of this process.
std::size_t CountThreads();

}  // namespace tern::test
