#pragma once

#include <zip.h>

namespace mwl::Utilities {

/// How an entry is packed: ZIP_CM and ZIP_EM numbers of libzip.
struct ZipEntryMethods {
    zip_uint16_t compression;
    zip_uint16_t encryption;

    bool IsAes() const noexcept { return encryption >= ZIP_EM_AES_128 && encryption <= ZIP_EM_AES_256; }
};

/// Takes the methods out of what zip_stat_index(3) has filled. They stand behind `mtime` there: on 32-bit
/// platforms libzip may be built with a narrower time_t than ours, and then everything behind `mtime` stands
/// four bytes before the place where we see it. Read nothing else of that part directly.
ZipEntryMethods GetZipEntryMethods(const zip_stat_t& stat);

}  // namespace mwl::Utilities
