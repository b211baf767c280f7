#pragma once

#include <string>
#include <string_view>

namespace ternctl {

/// Checks that a file can be created at `path`, before there is something to be lost. Throws Failure.
void CheckPlace(const std::string& path);

/// Makes `content` the content of the file at `path` in one step: a reader sees the former content, or
/// nothing, or all of it, and it is on its medium. Throws Failure, and then what was there is there still.
void WriteAtomically(const std::string& path, std::string_view content);

}  // namespace ternctl
