#include "socket_path.h"

#include <stdexcept>

namespace tern::test {

void CheckSocketPath(const std::string& path, std::size_t longest) {
    if (path.size() > longest) {
        std::string text = "the path of this socket may have ";
        text.append(std::to_string(longest)).append(" bytes, and ").append(path).append(" has ");
        text.append(std::to_string(path.size())).append(": set TMPDIR to a folder with a shorter path");
        throw std::runtime_error(text);
    }
}

}  // namespace tern::test
