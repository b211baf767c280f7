#pragma once

#include <string>

namespace tern::test {

// By calls of the test's own: a stream of the C++ library would take part in the sweep.

/// Makes or replaces a file.
void WritePlainFile(const std::string& path, const std::string& content);
/// Its content, empty when it cannot be opened.
std::string ReadPlainFile(const std::string& path);

}  // namespace tern::test
