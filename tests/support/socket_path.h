#pragma once

#include <cstddef>
#include <string>

namespace tern::test {

/// Throws std::runtime_error when `path` is too long for a socket, which a TMPDIR of some length brings
/// about. Cut short, it would lie elsewhere.
void CheckSocketPath(const std::string& path, std::size_t longest);

}  // namespace tern::test
