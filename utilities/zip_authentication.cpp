#include "utilities/zip_authentication.h"

#include <array>
#include <cstdint>

#include "utilities/zip_entry_buffer.h"
#include "utilities/zip_handles.h"

namespace mwl::Utilities {

namespace {

constexpr std::size_t CHUNK_SIZE = 16384;

/// Decrypts the data of an entry to its end, where libzip compares the authentication code.
bool DecryptToEnd(zip_t* archive, zip_uint64_t index, const std::string& password) {
    const ZipEntry entry(zip_fopen_index_encrypted(archive, index, ZIP_FL_COMPRESSED, password.c_str()));
    if (entry == nullptr) {
        return false;
    }
    std::array<char, CHUNK_SIZE> chunk{};
    zip_int64_t count = 0;
    do {
        count = zip_fread(entry.get(), chunk.data(), chunk.size());
    } while (count > 0);
    return count == 0;
}

void AppendNumber(std::string& bytes, std::uint32_t value, int size) {
    for (int i = 0; i < size; ++i) {
        bytes.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
    }
}

/// Fields that both headers of an entry share, from the version to the lengths of name and extra field.
void AppendCommonFields(std::string& bytes, std::uint32_t size) {
    AppendNumber(bytes, 51, 2);    // version that knows AES
    AppendNumber(bytes, 1, 2);     // flags: encrypted
    AppendNumber(bytes, 99, 2);    // method: AES
    AppendNumber(bytes, 0, 4);     // time and date
    AppendNumber(bytes, 0, 4);     // checksum: none
    AppendNumber(bytes, size, 4);  // size in the archive
    AppendNumber(bytes, size, 4);  // size, of no interest here
    AppendNumber(bytes, 1, 2);     // length of the name
    AppendNumber(bytes, 11, 2);    // length of the AES field
}

void AppendNameAndAesField(std::string& bytes, zip_uint16_t encryption) {
    bytes += "e";
    AppendNumber(bytes, 0x9901, 2);
    AppendNumber(bytes, 7, 2);
    AppendNumber(bytes, 2, 2);  // the scheme without checksum
    bytes += "AE";
    AppendNumber(bytes, encryption - ZIP_EM_AES_128 + 1U, 1);  // length of the key
    AppendNumber(bytes, ZIP_CM_DEFLATE, 2);
}

/// For an entry that is not compressed libzip compares the checksum even when it only decrypts, and its error
/// is the same as that for the authentication code. So the encrypted data is given to libzip in an archive of
/// its own, where it passes for compressed.
bool DecryptTakenForCompressed(zip_t* archive, zip_uint64_t index, zip_uint64_t size, zip_uint16_t encryption,
                               const std::string& password) {
    constexpr zip_uint64_t BEYOND_32_BITS = 0xFFFFFFFF - 1024;
    EntryBuffer data;
    const bool hasRoom = size < BEYOND_32_BITS && data.Reserve(size);
    const ZipEntry entry(zip_fopen_index(archive, index, ZIP_FL_ENCRYPTED));
    if (!hasRoom || entry == nullptr || data.Fill(entry.get()) != static_cast<zip_int64_t>(size)) {
        return false;
    }
    const auto dataSize = static_cast<std::uint32_t>(size);

    std::string head = "PK\3\4";
    AppendCommonFields(head, dataSize);
    AppendNameAndAesField(head, encryption);

    std::string tail = "PK\1\2";
    AppendNumber(tail, 51, 2);  // version made by
    AppendCommonFields(tail, dataSize);
    AppendNumber(tail, 0, 2);  // length of the comment
    AppendNumber(tail, 0, 2);  // disk
    AppendNumber(tail, 0, 2);  // internal attributes
    AppendNumber(tail, 0, 4);  // external attributes
    AppendNumber(tail, 0, 4);  // where the entry begins
    AppendNameAndAesField(tail, encryption);
    const auto directorySize = static_cast<std::uint32_t>(tail.size());
    const auto directoryAt = static_cast<std::uint32_t>(head.size() + size);
    tail += "PK\5\6";
    AppendNumber(tail, 0, 4);  // disks
    AppendNumber(tail, 1, 2);  // entries on this disk
    AppendNumber(tail, 1, 2);  // entries
    AppendNumber(tail, directorySize, 4);
    AppendNumber(tail, directoryAt, 4);
    AppendNumber(tail, 0, 2);  // length of the comment

    const zip_buffer_fragment_t fragments[] = {
        {reinterpret_cast<zip_uint8_t*>(head.data()), head.size()},
        {reinterpret_cast<zip_uint8_t*>(data.Get()), size},
        {reinterpret_cast<zip_uint8_t*>(tail.data()), tail.size()},
    };
    ZipSource source(zip_source_buffer_fragment_create(fragments, std::size(fragments), 0, nullptr));
    if (source == nullptr) {
        return false;
    }
    const ZipArchive relabelled(zip_open_from_source(source.get(), ZIP_RDONLY, nullptr));
    if (relabelled == nullptr) {
        return false;
    }
    static_cast<void>(source.release());  // the archive's now
    return DecryptToEnd(relabelled.get(), 0, password);
}

}  // namespace

bool IsAuthentic(zip_t* archive, zip_uint64_t index, zip_uint64_t size, const ZipEntryMethods& methods,
                 const std::string& password) {
    return methods.compression == ZIP_CM_STORE
               ? DecryptTakenForCompressed(archive, index, size, methods.encryption, password)
               : DecryptToEnd(archive, index, password);
}

}  // namespace mwl::Utilities
