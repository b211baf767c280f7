#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tern::test {

/// One entry of an archive that no well-behaved program would write: every field says what the test wants.
struct RawEntry {
    std::string name;
    std::string data;               ///< the bytes as they stand in the archive
    std::uint16_t method = 0;       ///< 0 stored, 8 deflated
    std::int64_t claimedSize = -1;  ///< uncompressed size, -1 the true one; beyond 32 bits by a ZIP64 field
    std::int64_t claimedCrc = -1;   ///< -1 the true one
    std::uint16_t flags = 0;
};

inline std::uint32_t Crc32(const std::string& data) {
    std::uint32_t crc = 0xFFFFFFFF;
    for (const char byte : data) {
        crc ^= static_cast<unsigned char>(byte);
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320 : 0);
        }
    }
    return ~crc;
}

inline std::string LittleEndian(std::uint64_t value, std::size_t size) {
    std::string bytes;
    for (std::size_t i = 0; i < size; ++i) {
        bytes.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
    }
    return bytes;
}

/// The bytes of a zip archive with these entries.
inline std::string MakeRawZip(const std::vector<RawEntry>& entries) {
    std::string archive;
    std::string directory;
    for (const RawEntry& entry : entries) {
        const std::uint64_t size =
            entry.claimedSize < 0 ? entry.data.size() : static_cast<std::uint64_t>(entry.claimedSize);
        const std::uint64_t crc =
            entry.claimedCrc < 0 ? Crc32(entry.data) : static_cast<std::uint64_t>(entry.claimedCrc);
        const bool isZip64 = size >= 0xFFFFFFFF;
        const std::string extra = isZip64 ? LittleEndian(1, 2) + LittleEndian(16, 2) + LittleEndian(size, 8) +
                                                LittleEndian(entry.data.size(), 8)
                                          : "";
        const std::string common = LittleEndian(isZip64 ? 45 : 20, 2) + LittleEndian(entry.flags, 2) +
                                   LittleEndian(entry.method, 2) + LittleEndian(0, 2) +
                                   LittleEndian(0x21, 2) + LittleEndian(crc, 4) +
                                   LittleEndian(isZip64 ? 0xFFFFFFFF : entry.data.size(), 4) +
                                   LittleEndian(isZip64 ? 0xFFFFFFFF : size, 4) +
                                   LittleEndian(entry.name.size(), 2) + LittleEndian(extra.size(), 2);
        directory += "PK\1\2" + LittleEndian(0x0314, 2) + common + LittleEndian(0, 2) + LittleEndian(0, 2) +
                     LittleEndian(0, 2) + LittleEndian(0, 4) + LittleEndian(archive.size(), 4) + entry.name +
                     extra;
        archive += "PK\3\4" + common + entry.name + extra + entry.data;
    }
    return archive + directory + "PK\5\6" + LittleEndian(0, 4) + LittleEndian(entries.size(), 2) +
           LittleEndian(entries.size(), 2) + LittleEndian(directory.size(), 4) +
           LittleEndian(archive.size(), 4) + LittleEndian(0, 2);
}

}  // namespace tern::test
