#pragma once

#include <zip.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "foundation/handle.h"

namespace mwl::Utilities {

/// An open archive; what was not closed by zip_close(3) is discarded, unwritten.
using ZipArchive = Handle<zip_t, zip_discard>;
using ZipSource = Handle<zip_source_t, zip_source_free>;
using ZipEntry = Handle<zip_file_t, zip_fclose>;

/// Memory for an entry. Its size is what the archive claims, so it may be anything.
using EntryBuffer = Handle<char, free>;

/// Zeroed: when an entry is shorter than it claims, nothing of this process's old memory may get into a file.
/// Null when there is no such memory.
inline EntryBuffer AllocateEntryBuffer(zip_uint64_t size) {
    if (size > SIZE_MAX) {
        return nullptr;
    }
    return EntryBuffer(
        static_cast<char*>(calloc(std::max<std::size_t>(static_cast<std::size_t>(size), 1), 1)));
}

}  // namespace mwl::Utilities
