#pragma once

#include <dirent.h>

#include <cerrno>
#include <string>
#include <string_view>

#include "foundation/handle.h"
#include "foundation/unique_fd.h"

namespace mwl::Utilities {

/// One walk over the entries of a folder (opendir(3)), in the order of readdir(3).
/// One thread at a time.
class Directory {
public:
    /// No folder: the object is false.
    Directory() = default;
    /// Opens the folder; on failure the object is false and `errno` says why.
    explicit Directory(const std::string& path) : mStream(opendir(path.c_str())) {}
    /// Walks a folder that is open for reading; on failure the object is false, `errno` says why and `folder`
    /// stays as it is.
    explicit Directory(UniqueFd& folder) : mStream(fdopendir(folder.Get())) {
        if (mStream != nullptr) {
            static_cast<void>(folder.Release());  // the stream's now
        }
    }

    explicit operator bool() const noexcept { return mStream != nullptr; }

    /// The open folder itself, for what is done to its entries.
    int Descriptor() const { return dirfd(mStream.get()); }

    /// The next entry, "." and ".." included, valid until the next call; null at the end, and then `errno` is
    /// 0 unless reading failed.
    const dirent* NextOfAll() {
        errno = 0;
        // Safe: a stream of our own is not shared between threads.
        return readdir(mStream.get());  // NOLINT(concurrency-mt-unsafe)
    }

    /// The next entry other than "." and "..", otherwise like NextOfAll: look at `errno` after a loop.
    const dirent* Next() {
        while (const dirent* entry = NextOfAll()) {
            const std::string_view name = entry->d_name;
            if (name != "." && name != "..") {
                return entry;
            }
        }
        return nullptr;
    }

    /// Closes early, for callers that look at the result of closedir(3); `errno` says why it is not 0.
    int Close() { return closedir(mStream.release()); }

private:
    Handle<DIR, closedir> mStream;
};

}  // namespace mwl::Utilities
