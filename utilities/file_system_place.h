#pragma once

#include <fcntl.h>

#include <cstddef>
#include <string>

#include "foundation/unique_fd.h"

namespace mwl::Utilities {

/// A path without the separators at its end; "/" stays.
inline std::string WithoutTrailingSeparators(const std::string& path) {
    const std::size_t last = path.find_last_not_of('/');
    return path.substr(0, last == std::string::npos ? 1 : last + 1);
}

/// The folder in which the last name of a path stands, held open, and that name: for what uses a path more
/// than once, so that all of it happens in the same folder. When the folder cannot be opened, the name is the
/// whole path, and the next operation on it reports why.
struct Place {
    /// `path` has no separator at its end.
    explicit Place(const std::string& path) : name(path) {
        const std::size_t separator = path.rfind('/');
        if (separator == std::string::npos || path.size() == 1) {
            return;
        }
        folder.Reset(
            openat(AT_FDCWD, path.substr(0, separator + 1).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (folder) {
            name.erase(0, separator + 1);
        }
    }

    int At() const { return folder ? folder.Get() : AT_FDCWD; }

    UniqueFd folder;
    std::string name;
};

}  // namespace mwl::Utilities
