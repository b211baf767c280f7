#include "utilities/zip_entry_reading.h"

#include <cstddef>

#include "utilities/zip_authentication.h"

namespace mwl::Utilities {

namespace {

constexpr std::size_t SURPLUS_SIZE = 4096;

enum class ReadResult { Whole, ChecksumDiffers, Failed };

/// Reads the entry into the room of `buffer`, and on to its end, where libzip compares size and checksum.
/// Encrypted entries may have no checksum: then libzip 1.11 does not compare the size either, and
/// `comparesSize` has this done here. An entry shorter than it claims sets
/// `isShort`.
ReadResult ReadToEnd(zip_file_t* entry, EntryBuffer& buffer, bool comparesSize, bool& isShort) {
    const zip_uint64_t size = buffer.GetSize();
    const zip_int64_t count = buffer.Fill(entry);
    if (count < 0) {
        return ReadResult::Failed;
    }
    isShort = static_cast<zip_uint64_t>(count) < size;
    char surplus[SURPLUS_SIZE];
    zip_uint64_t total = static_cast<zip_uint64_t>(count);
    zip_int64_t more = zip_fread(entry, surplus, sizeof surplus);
    const bool isAsLongAsClaimed = more <= 0 && total == size;
    while (more > 0) {
        total += static_cast<zip_uint64_t>(more);
        more = zip_fread(entry, surplus, sizeof surplus);
    }
    if (more == 0 && comparesSize && total != size) {
        zip_error_set(zip_file_get_error(entry), ZIP_ER_INCONS, 0);
        return ReadResult::Failed;
    }
    if (more == 0) {
        return ReadResult::Whole;
    }
    const bool isChecksum = zip_error_code_zip(zip_file_get_error(entry)) == ZIP_ER_CRC;
    return isChecksum && isAsLongAsClaimed ? ReadResult::ChecksumDiffers : ReadResult::Failed;
}

}  // namespace

EntryReading ReadEntry(zip_t* archive, const zip_stat_t& stat, zip_uint64_t index,
                       const ZipEntryMethods& methods, const std::string& password, zip_file_t* entry,
                       EntryBuffer& buffer) {
    EntryReading reading;
    const ReadResult result = ReadToEnd(entry, buffer, methods.IsAes(), reading.isShort);
    reading.isRead = result == ReadResult::Whole;
    // At the end of an entry that is not compressed libzip has compared the code.
    const bool isDecided = !methods.IsAes() || (reading.isRead && methods.compression == ZIP_CM_STORE);
    if (result == ReadResult::Failed || isDecided) {
        return reading;
    }
    const bool isAuthentic = IsAuthentic(archive, index, stat.comp_size, methods, password);
    if (reading.isRead && !isAuthentic) {
        zip_error_set(zip_file_get_error(entry), ZIP_ER_CRC, 0);
    }
    reading.isOverruled = !reading.isRead && isAuthentic;
    reading.isRead = isAuthentic;
    return reading;
}

}  // namespace mwl::Utilities
