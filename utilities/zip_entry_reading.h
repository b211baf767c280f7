#pragma once

#include <zip.h>

#include <string>

#include "utilities/zip_entry_buffer.h"
#include "utilities/zip_entry_methods.h"

namespace mwl::Utilities {

/// What came of reading an entry.
struct EntryReading {
    bool isRead = false;
    /// The content is shorter than the entry claims.
    bool isShort = false;
    /// libzip found a checksum that differs, and the authentication code says otherwise. Closing repeats
    /// libzip's error then, which from libzip 1.12 on cannot be cleared.
    bool isOverruled = false;
};

/// Reads the open entry into the room of `buffer`, and on to its end, where libzip compares size and
/// checksum; has the last word about its authentication code. When it was not read, the handle keeps the
/// error.
EntryReading ReadEntry(zip_t* archive, const zip_stat_t& stat, zip_uint64_t index,
                       const ZipEntryMethods& methods, const std::string& password, zip_file_t* entry,
                       EntryBuffer& buffer);

}  // namespace mwl::Utilities
