#pragma once

#include <zip.h>

#include <string>

namespace mwl::Utilities {

/// What the authentication code of an entry says. Entries in clear, and those of the old encryption of zip,
/// have none.
enum class Authentication { None, Genuine, Wrong };

/// Compares the authentication code of an AES-encrypted entry with its data, for what libzip 1.7 leaves out:
/// expanding a compressed entry ends before its code is looked at; and the checksum of an entry by the second
/// of the two AES schemes, which has none and stands as 0, is compared all the same, so that the entries of
/// other programs seem to be damaged.
///
/// Decrypts the entry once more, without expanding it. `size` is what the entry takes in the archive. An
/// entry that cannot be read, or for which there is no memory, counts as Wrong.
Authentication CheckAuthentication(zip_t* archive, zip_uint64_t index, zip_uint64_t size,
                                   const std::string& password);

}  // namespace mwl::Utilities
