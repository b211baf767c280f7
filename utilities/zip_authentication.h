#pragma once

#include <zip.h>

#include <string>

#include "utilities/zip_entry_methods.h"

namespace mwl::Utilities {

/// Whether the authentication code of an AES-encrypted entry is that of its data, for what libzip 1.7 leaves
/// out: expanding a compressed entry ends before its code is looked at; and for an entry by the second of the
/// two AES schemes, which has no checksum but a 0 in its place, that 0 is compared all the same, so that the
/// entries of other programs seem to be damaged.
///
/// Decrypts the entry once more, without expanding it. `size` is what the entry takes in the archive. An
/// entry that cannot be read, or for which there is no memory, is not authentic.
bool IsAuthentic(zip_t* archive, zip_uint64_t index, zip_uint64_t size, const ZipEntryMethods& methods,
                 const std::string& password);

}  // namespace mwl::Utilities
