#pragma once

#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace mwl::ProcessExecution {

/// The pieces of `line` between spaces. Empty pieces (consecutive, leading and trailing spaces) are left out;
/// other white space and quotes are ordinary characters.
inline std::vector<std::string> SplitArguments(const std::string& line) {
    std::vector<std::string> arguments;
    std::istringstream stream(line);
    for (std::string piece; std::getline(stream, piece, ' ');) {
        if (!piece.empty()) {
            arguments.push_back(std::move(piece));
        }
    }
    return arguments;
}

}  // namespace mwl::ProcessExecution
