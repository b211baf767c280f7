#pragma once

// What the tests of Zipper share: archives, folders, and the functions of libzip that they make fail. Include
// it in the one source of a test program.

#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tern/utilities/zipper.h>
#include <unistd.h>
#include <zip.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>

#include "private_mounts.h"
#include "raw_zip.h"
#include "support/child.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/process_resources.h"
#include "support/temp_folder.h"
#include "utilities/zip_entry_methods.h"

TERN_INTERPOSE(int, closedir, (DIR * stream), (stream))
TERN_INTERPOSE(struct dirent*, readdir64, (DIR * stream), (stream))
TERN_INTERPOSE(int, open64, (const char* path, int flags, mode_t mode), (path, flags, mode))
TERN_INTERPOSE(int, syncfs, (int fd), (fd))
TERN_INTERPOSE(ssize_t, write, (int fd, const void* buffer, size_t size), (fd, buffer, size))
TERN_INTERPOSE(zip_t*, zip_open, (const char* path, int flags, int* error), (path, flags, error))
TERN_INTERPOSE(int, zip_close, (zip_t * archive), (archive))
TERN_INTERPOSE(zip_source_t*, zip_source_file,
               (zip_t * archive, const char* path, zip_uint64_t start, zip_int64_t length),
               (archive, path, start, length))
TERN_INTERPOSE(zip_int64_t, zip_file_add,
               (zip_t * archive, const char* name, zip_source_t* source, zip_flags_t flags),
               (archive, name, source, flags))
TERN_INTERPOSE(int, zip_file_set_encryption,
               (zip_t * archive, zip_uint64_t index, zip_uint16_t method, const char* password),
               (archive, index, method, password))
TERN_INTERPOSE(int, zip_delete, (zip_t * archive, zip_uint64_t index), (archive, index))
TERN_INTERPOSE(zip_int64_t, zip_get_num_entries, (zip_t * archive, zip_flags_t flags), (archive, flags))
TERN_INTERPOSE(int, zip_stat_index,
               (zip_t * archive, zip_uint64_t index, zip_flags_t flags, zip_stat_t* stat),
               (archive, index, flags, stat))
TERN_INTERPOSE(zip_file_t*, zip_fopen_index, (zip_t * archive, zip_uint64_t index, zip_flags_t flags),
               (archive, index, flags))
TERN_INTERPOSE(zip_file_t*, zip_fopen_index_encrypted,
               (zip_t * archive, zip_uint64_t index, zip_flags_t flags, const char* password),
               (archive, index, flags, password))
TERN_INTERPOSE(zip_source_t*, zip_source_buffer_fragment_create,
               (const zip_buffer_fragment_t* fragments, zip_uint64_t count, int owned, zip_error_t* error),
               (fragments, count, owned, error))
TERN_INTERPOSE(zip_t*, zip_open_from_source, (zip_source_t * source, int flags, zip_error_t* error),
               (source, flags, error))
TERN_INTERPOSE(zip_int64_t, zip_fread, (zip_file_t * entry, void* buffer, zip_uint64_t size),
               (entry, buffer, size))
TERN_INTERPOSE(int, zip_fclose, (zip_file_t * entry), (entry))

// Memory that cannot be had is an answer, as without a sanitizer.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options();  // NOLINT
const char* __asan_default_options() {                                                   // NOLINT
    return "allocator_may_return_null=1";
}
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options();  // NOLINT
const char* __tsan_default_options() {                                                   // NOLINT
    return "allocator_may_return_null=1";
}

// The time conversions of the C library, which libzip uses, are guarded by a lock that ThreadSanitizer does
// not see.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions();  // NOLINT
const char* __tsan_default_suppressions() {                                                   // NOLINT
    return "race:tzset_internal\n";
}

namespace mwl::Utilities {

using tern::test::CountDescriptors;
using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::LogEntry;
using tern::test::MakeRawZip;
using tern::test::RawEntry;
using tern::test::TempFolder;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

using Names = std::vector<std::string>;

inline const std::string LOGGER = "mwl::Utilities::Zipper";
inline const std::string SECRET = "the secret of the archive";

/// "a.txt" with SECRET as its content, stored with AES-128 and the password "secret" by another program. Its
/// salt is fixed, so a wrong password is told from the right one every time; the scheme itself misses one in
/// 65536.
inline constexpr unsigned char ENCRYPTED_ZIP[] = {
    0x50, 0x4b, 0x03, 0x04, 0x33, 0x00, 0x01, 0x00, 0x63, 0x00, 0xfd, 0x4d, 0x75, 0x5d, 0x00, 0x00, 0x00,
    0x00, 0x2d, 0x00, 0x00, 0x00, 0x19, 0x00, 0x00, 0x00, 0x05, 0x00, 0x0b, 0x00, 0x61, 0x2e, 0x74, 0x78,
    0x74, 0x01, 0x99, 0x07, 0x00, 0x02, 0x00, 0x41, 0x45, 0x01, 0x00, 0x00, 0x04, 0x6e, 0x2f, 0xa5, 0x8a,
    0x00, 0x89, 0x80, 0x02, 0x89, 0x87, 0x00, 0xa6, 0x88, 0x08, 0x1d, 0xfd, 0xf0, 0x16, 0xcd, 0xf6, 0x92,
    0x17, 0x45, 0x0d, 0x34, 0x94, 0x66, 0xaa, 0x45, 0x0b, 0xdc, 0xde, 0x32, 0xd4, 0x65, 0x17, 0x7c, 0x80,
    0x23, 0x23, 0xa6, 0x62, 0x8e, 0x56, 0x50, 0x4b, 0x01, 0x02, 0x3f, 0x03, 0x33, 0x00, 0x01, 0x00, 0x63,
    0x00, 0xfd, 0x4d, 0x75, 0x5d, 0x00, 0x00, 0x00, 0x00, 0x2d, 0x00, 0x00, 0x00, 0x19, 0x00, 0x00, 0x00,
    0x05, 0x00, 0x2f, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x20, 0x80, 0xa4, 0x81, 0x00, 0x00, 0x00,
    0x00, 0x61, 0x2e, 0x74, 0x78, 0x74, 0x0a, 0x00, 0x20, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x18,
    0x00, 0xb4, 0x87, 0x11, 0x63, 0x9d, 0x79, 0xdd, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x99, 0x07, 0x00, 0x02, 0x00, 0x41, 0x45, 0x01,
    0x00, 0x00, 0x50, 0x4b, 0x05, 0x06, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x01, 0x00, 0x62, 0x00, 0x00,
    0x00, 0x5b, 0x00, 0x00, 0x00, 0x00, 0x00};
inline constexpr std::size_t ENCRYPTED_DIRECTORY_AT = 0x5B;
inline constexpr std::size_t AUTHENTICATION_CODE_END = ENCRYPTED_DIRECTORY_AT;
inline constexpr std::size_t SIZE_IN_DIRECTORY = 24;
inline constexpr zip_uint64_t ENCRYPTED_SIZE = 45;

inline std::string EncryptedZip() {
    return {reinterpret_cast<const char*>(ENCRYPTED_ZIP), sizeof ENCRYPTED_ZIP};
}

/// The same, marked as of the scheme whose checksums count, and the checksum is wrong. (Of the other scheme,
/// which has none, some versions of libzip compare it all the same.)
inline std::string EncryptedZipWithWrongChecksum() {
    const std::string_view scheme("\x01\x99\x07\x00\x02", 5);
    std::string bytes = EncryptedZip();
    for (std::size_t at = bytes.find(scheme); at != std::string::npos; at = bytes.find(scheme, at)) {
        bytes[at + scheme.size() - 1] = 1;
    }
    return bytes;
}

inline LogEntry Error(const std::string& text) {
    return tern::test::Error(LOGGER, text);
}
inline LogEntry Info(const std::string& text) {
    return tern::test::Info(LOGGER, text);
}

inline void WriteFile(const std::string& path, std::string_view content) {
    std::ofstream(path, std::ios::binary) << content;
}

inline std::string ReadFile(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

inline Names ListFolder(const std::string& path) {
    Names names;
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

struct ArchiveEntry {
    std::string name;
    std::uint16_t encryption;
    friend bool operator==(const ArchiveEntry&, const ArchiveEntry&) = default;
};

/// What libzip itself finds in the archive.
inline std::vector<ArchiveEntry> ListArchive(const std::string& path) {
    std::vector<ArchiveEntry> entries;
    int error = 0;
    zip_t* const archive = zip_open(path.c_str(), ZIP_RDONLY | ZIP_CHECKCONS, &error);
    EXPECT_NE(archive, nullptr) << path << ": " << error;
    for (zip_int64_t i = 0; archive != nullptr && i < zip_get_num_entries(archive, 0); ++i) {
        zip_stat_t stat{};
        EXPECT_EQ(zip_stat_index(archive, static_cast<zip_uint64_t>(i), 0, &stat), 0);
        entries.push_back({stat.name, mwl::Utilities::GetZipEntryMethods(stat).encryption});
    }
    if (archive != nullptr) {
        zip_discard(archive);
    }
    return entries;
}

inline Names NamesIn(const std::string& path) {
    Names names;
    for (ArchiveEntry& entry : ListArchive(path)) {
        names.push_back(std::move(entry.name));
    }
    return names;
}

/// A stand-in that fails with a code of libzip on the archive.
template <typename Result>
inline auto FailWith(Result result, int code) {
    return [=](zip_t* archive, auto...) {
        zip_error_set(zip_get_error(archive), code, 0);
        return result;
    };
}

struct ProgramResult {
    int exitCode;
    std::string output;
};

/// Runs a program with its arguments as the shell takes them.
inline ProgramResult RunProgram(const std::string& command) {
    ProgramResult result{-1, ""};
    FILE* const pipe = popen((command + " 2>&1 </dev/null").c_str(), "re");
    std::array<char, 4096> buffer{};
    while (pipe != nullptr && fgets(buffer.data(), buffer.size(), pipe) != nullptr) {
        result.output += buffer.data();
    }
    const int status = pipe == nullptr ? -1 : pclose(pipe);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

#define SKIP_WITHOUT(program)                                             \
    if (RunProgram("command -v " program).exitCode != 0) {                \
        GTEST_SKIP() << "the program " program " is not on this machine"; \
    }

class ZipperTest : public testing::Test {
protected:
    ZipperTest() { std::filesystem::create_directory(source); }
    ~ZipperTest() override {
        EXPECT_EQ(CountDescriptors(), mDescriptors);
        // Temporary files of a failed write would be beside the archive.
        for (const std::string& name : ListFolder(work.Path())) {
            EXPECT_THAT(Names({"source", "target", "a.zip"}), Contains(name));
        }
    }

    void AddSource(const std::string& name, std::string_view content) const {
        WriteFile(source + "/" + name, content);
    }
    void AddThreeSources() const {
        for (const char* const name : {"1", "2", "3"}) {
            AddSource(name, SECRET + name);
        }
    }
    std::string Extracted(const std::string& name) const { return ReadFile(target + "/" + name); }

    StatusCode Zip(const std::string& password = "") const { return Zipper::Zip(source, archive, password); }
    StatusCode Unzip(const std::string& password = "") const {
        return Zipper::Unzip(archive, target, password);
    }
    StatusCode UnzipWhole(const std::string& password = "") const {
        return Zipper::UnzipWhole(archive, target, password);
    }
    StatusCode UnzipBytes(const std::string& bytes, const std::string& password = "") const {
        WriteFile(archive, bytes);
        return Unzip(password);
    }
    StatusCode UnzipRaw(const std::vector<RawEntry>& entries) const {
        return UnzipBytes(MakeRawZip(entries));
    }

    /// The messages without those about entries that are no files.
    std::vector<LogEntry> Messages() const {
        std::vector<LogEntry> entries = log.Entries(LOGGER);
        std::erase_if(entries, [](const LogEntry& entry) { return entry.text.starts_with("ZipContent: "); });
        return entries;
    }
    LogEntry Successful() const { return Info("Zip: Zip successful for " + archive); }
    static LogEntry FailedWith(const std::string& status) {
        return Error("Unzip: Failed with status " + status);
    }

private:
    const std::size_t mDescriptors = CountDescriptors();

protected:
    LogCapture log;
    TempFolder work;
    const std::string source = work / "source";
    const std::string target = work / "target";
    const std::string archive = work / "a.zip";
};

}  // namespace mwl::Utilities
