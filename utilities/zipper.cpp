#include <tern/utilities/zipper.h>

#include <tern/foundation/log.h>
#include <tern/utilities/file_system.h>
#include <zip.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>
#include <utility>

#include "foundation/error_text.h"
#include "utilities/directory.h"
#include "utilities/libzip.h"
#include "utilities/plain_unzip_target.h"
#include "utilities/unzip_target.h"
#include "utilities/whole_unzip_target.h"
#include "utilities/zip_entry_buffer.h"
#include "utilities/zip_entry_methods.h"
#include "utilities/zip_entry_reading.h"
#include "utilities/zip_handles.h"
#include "utilities/zip_status.h"
#include "utilities/zipper_logger.h"

namespace mwl::Utilities {

const StaticText ZIPPER_LOGGER("mwl::Utilities::Zipper");

namespace {

/// libzip's text for one of its codes. It takes errno along, so it is created right after the call that
/// failed.
class ZipErrorText {
public:
    explicit ZipErrorText(int code) { zip_error_init_with_code(&mError, code); }
    ~ZipErrorText() { zip_error_fini(&mError); }
    ZipErrorText(const ZipErrorText&) = delete;
    ZipErrorText& operator=(const ZipErrorText&) = delete;

    const char* Get() { return zip_error_strerror(&mError); }

private:
    zip_error_t mError{};
};

/// Marks the entry for encryption. An entry that cannot be encrypted is taken back, because closing the
/// archive would write it in clear; an archive that does not even let go of it is discarded.
StatusCode Encrypt(ZipArchive& archive, zip_uint64_t index, const std::string& password) {
    if (zip_file_set_encryption(archive.get(), index, ZIP_EM_AES_128, password.c_str()) == 0) {
        return StatusCode::Ok;
    }
    const StatusCode status = GetArchiveStatus(archive.get());
    TERN_LOG_ERROR(ZIPPER_LOGGER, "Zip: Failed to encrypt file to zip: %s", zip_strerror(archive.get()));
    if (zip_delete(archive.get(), index) != 0) {
        archive.reset();
    }
    return status;
}

/// An archive; or null with the status and libzip's text.
struct Opened {
    ZipArchive archive;
    StatusCode status = StatusCode::Ok;
    std::string error;
};

Opened OpenArchive(const std::string& path, int flags) {
    if (const char* const reason = LoadLibzip(); reason != nullptr) {
        return {nullptr, Zipper::GetStatusZipError(ZIP_ER_OPNOTSUPP), reason};
    }
    int error = 0;
    ZipArchive archive(zip_open(path.c_str(), flags, &error));
    if (archive == nullptr) {
        return {nullptr, Zipper::GetStatusZipError(error), ZipErrorText(error).Get()};
    }
    return {std::move(archive), StatusCode::Ok, std::string()};
}

struct Added {
    StatusCode status;
    bool walkGoesOn;
};

/// Adds one file, which libzip opens and reads when the archive is closed.
Added AddFile(ZipArchive& archive, const std::string& folder, const char* name, const std::string& password) {
    const std::string path = folder + FileSystem::FOLDER_SEPARATOR + name;
    ZipSource source(zip_source_file(archive.get(), path.c_str(), 0, 0));
    const bool hasSource = source != nullptr;
    const zip_int64_t index =
        hasSource ? zip_file_add(archive.get(), name, source.get(), ZIP_FL_ENC_UTF_8) : -1;
    if (index < 0) {
        const StatusCode status = GetArchiveStatus(archive.get());
        TERN_LOG_ERROR(ZIPPER_LOGGER, "Zip: Failed to add file to zip: %s", zip_strerror(archive.get()));
        return {status, !hasSource};
    }
    static_cast<void>(source.release());  // the archive's now
    if (password.empty()) {
        return {StatusCode::Ok, true};
    }
    const StatusCode status = Encrypt(archive, static_cast<zip_uint64_t>(index), password);
    return {status, status == StatusCode::Ok};
}

/// Adds the regular files of the folder. The status is that of the last failure.
StatusCode AddFiles(ZipArchive& archive, const std::string& folder, const std::string& password) {
    Directory directory(folder);
    if (!directory) {
        TERN_LOG_ERROR(ZIPPER_LOGGER, "Zip: Fail to open directory: %s", folder.c_str());
        return StatusCode::Failure;
    }
    StatusCode status = StatusCode::Ok;
    bool goOn = true;
    while (goOn) {
        const dirent* const entry = directory.NextOfAll();
        if (entry == nullptr) {
            const int error = errno;
            if (error != 0) {
                TERN_LOG_ERROR(ZIPPER_LOGGER, "Zip: Failed to read directory %s, errno = %s", folder.c_str(),
                               ErrorText(error));
                status = mw::tern::MakeStatusCodeFromErrno(error);
            }
            break;
        }
        if (entry->d_type != DT_REG) {
            TERN_LOG_INFO(ZIPPER_LOGGER, "ZipContent: Content %s in directory is not a file, type = %d",
                          entry->d_name, static_cast<int>(entry->d_type));
            continue;
        }
        const Added added = AddFile(archive, folder, entry->d_name, password);
        if (added.status != StatusCode::Ok) {
            status = added.status;
        }
        goOn = added.walkGoesOn;
    }
    if (directory.Close() != 0) {
        const int error = errno;
        TERN_LOG_ERROR(ZIPPER_LOGGER, "Zip: Failed to close directory, errno = %s", ErrorText(error));
    }
    return status;
}

/// Closes the archive, discards it when closing fails. Returns the result of zip_close(3).
int CloseArchive(ZipArchive archive) {
    const int result = archive == nullptr ? -1 : zip_close(archive.get());
    if (result == 0) {
        static_cast<void>(archive.release());
    }
    return result;
}

/// Null when it cannot be opened; the archive keeps the error.
ZipEntry OpenEntry(zip_t* archive, zip_uint64_t index, const ZipEntryMethods& methods,
                   const std::string& password) {
    if (password.empty()) {
        return ZipEntry(zip_fopen_index(archive, index, 0));
    }
    if (zip_encryption_method_supported(methods.encryption, 0) == 0) {
        // libzip 1.7 would say the same, but lose memory.
        zip_error_set(zip_get_error(archive), ZIP_ER_ENCRNOTSUPP, 0);
        return nullptr;
    }
    return ZipEntry(zip_fopen_index_encrypted(archive, index, 0, password.c_str()));
}

/// Extracts one entry by way of `buffer`.
StatusCode ExtractEntry(zip_t* archive, zip_uint64_t index, UnzipTarget& target, const std::string& password,
                        EntryBuffer& buffer) {
    zip_stat_t stat{};
    if (zip_stat_index(archive, index, 0, &stat) != 0) {
        return target.Undescribed(archive, index);
    }
    const char* const name = stat.name;
    const ZipEntryMethods methods = GetZipEntryMethods(stat);
    ZipEntry entry = OpenEntry(archive, index, methods, password);
    if (entry == nullptr) {
        const StatusCode status = GetArchiveStatus(archive);
        TERN_LOG_ERROR(ZIPPER_LOGGER, "Unzip: Failed to open zip file %s, error = %s", name,
                       zip_strerror(archive));
        return status;
    }
    if (strstr(name, Zipper::RELATIVE_PATH_STRING.c_str()) != nullptr) {
        TERN_LOG_ERROR(ZIPPER_LOGGER, "Unzip: Zip file has a malicious path %s", name);
        return StatusCode::InvalidArgument;
    }
    if (!buffer.Reserve(stat.size)) {
        TERN_LOG_ERROR(ZIPPER_LOGGER, "Unzip: Failed to read file %s", name);
        return StatusCode::OutOfMemory;
    }
    const EntryReading reading = ReadEntry(archive, stat, index, methods, password, entry.get(), buffer);
    const bool isRead = reading.isRead && (!reading.isShort || target.TakesShortEntries());
    if (!isRead) {
        TERN_LOG_ERROR(ZIPPER_LOGGER, "Unzip: Failed to read file %s", name);
    }
    // libzip repeats here the error that reading met.
    if (zip_fclose(entry.release()) != 0 && !reading.isOverruled) {
        TERN_LOG_ERROR(ZIPPER_LOGGER, "Unzip: Failed to close file %s", name);
        return StatusCode::Failure;
    }
    if (!isRead) {
        return StatusCode::InvalidArgument;
    }
    return target.Write(name, buffer.Get(), buffer.GetSize());
}

/// Extracts the entries in their order, up to the first that fails.
StatusCode ExtractEntries(zip_t* archive, const std::string& zipFile, UnzipTarget& target,
                          const std::string& password) {
    const zip_int64_t count = zip_get_num_entries(archive, 0);
    if (count < 0) {
        TERN_LOG_ERROR(ZIPPER_LOGGER, "Unzip: No files found in %s", zipFile.c_str());
        return StatusCode::NotFound;
    }
    EntryBuffer buffer;
    for (zip_int64_t index = 0; index < count; ++index) {
        const StatusCode status =
            ExtractEntry(archive, static_cast<zip_uint64_t>(index), target, password, buffer);
        if (status != StatusCode::Ok) {
            TERN_LOG_ERROR(ZIPPER_LOGGER, "Unzip: Failed with status %s",
                           mw::tern::ConvertStatusCodeToString(status).c_str());
            return status;
        }
    }
    return StatusCode::Ok;
}

/// Unzip into a target that is created when there is a folder for it.
template <typename TargetKind>
StatusCode UnzipTo(const std::string& zipFile, const std::string& folder, const std::string& password) {
    if (zipFile.empty() || folder.empty()) {
        TERN_LOG_ERROR(
            ZIPPER_LOGGER,
            "Unzip: Path to zip file (%s) or to folder to extract (%s) is empty, so can't proccess unzip",
            zipFile.c_str(), folder.c_str());
        return StatusCode::Failure;
    }
    const StatusCode created = FileSystem::CreateFolder(folder);
    if (created != StatusCode::Ok) {
        TERN_LOG_ERROR(ZIPPER_LOGGER, "Unzip: Failed to create content folder %s", folder.c_str());
        return created;
    }
    Opened opened = OpenArchive(zipFile, 0);
    if (opened.archive == nullptr) {
        TERN_LOG_ERROR(ZIPPER_LOGGER, "Unzip: Failed to open zip %s, error = %s", zipFile.c_str(),
                       opened.error.c_str());
        return opened.status;
    }
    TargetKind target(folder);
    const StatusCode status = ExtractEntries(opened.archive.get(), zipFile, target, password);
    const int result = CloseArchive(std::move(opened.archive));
    if (result == -1) {
        ZipErrorText text(result);
        TERN_LOG_INFO(ZIPPER_LOGGER, "Unzip: Unzip creation finish with: %s", text.Get());
        return Zipper::GetStatusZipError(result);
    }
    return status == StatusCode::Ok ? target.Finish() : status;
}

}  // namespace

StatusCode Zipper::Zip(const std::string& folder, const std::string& zipFile, const std::string& password) {
    if (folder.empty() || zipFile.empty()) {
        TERN_LOG_ERROR(ZIPPER_LOGGER,
                       "Zip: Path to folder to zip (%s) or zip name (%s) is empty, so can't proccess zip",
                       folder.c_str(), zipFile.c_str());
        // There is nothing to back up, and that is no error of the caller's.
        return StatusCode::Ok;
    }
    Opened opened = OpenArchive(zipFile, ZIP_CREATE | ZIP_TRUNCATE);
    if (opened.archive == nullptr) {
        TERN_LOG_ERROR(ZIPPER_LOGGER, "Zip: Failed to create zip %s, error = %s", zipFile.c_str(),
                       opened.error.c_str());
        return opened.status;
    }
    const StatusCode status = AddFiles(opened.archive, folder, password);
    const int result = CloseArchive(std::move(opened.archive));
    if (result == -1) {
        // Fixed by the interface: result and text are those of -1, not of the archive's error.
        ZipErrorText text(result);
        TERN_LOG_INFO(ZIPPER_LOGGER, "Zip: Zip creation finish with: %s", text.Get());
        return GetStatusZipError(result);
    }
    if (result != 0) {
        TERN_LOG_INFO(ZIPPER_LOGGER, "Zip: Unexpected zip error code: %d", result);
    } else {
        // Fixed by the interface: reported for every archive that is written, also when a file is missing
        // from it.
        TERN_LOG_INFO(ZIPPER_LOGGER, "Zip: Zip successful for %s", zipFile.c_str());
    }
    return status;
}

StatusCode Zipper::Unzip(const std::string& zipFile, const std::string& folder, const std::string& password) {
    return UnzipTo<PlainUnzipTarget>(zipFile, folder, password);
}

StatusCode Zipper::UnzipWhole(const std::string& zipFile, const std::string& folder,
                              const std::string& password) {
    return UnzipTo<WholeUnzipTarget>(zipFile, folder, password);
}

StatusCode Zipper::GetStatusZipError(int zipErrorCode) {
    switch (zipErrorCode) {
        case ZIP_ER_RENAME:
        case ZIP_ER_SEEK:
        case ZIP_ER_READ:
        case ZIP_ER_WRITE:
        case ZIP_ER_TMPOPEN:
            return StatusCode::IoError;
        case ZIP_ER_NOENT:
        case ZIP_ER_INVAL:
        case ZIP_ER_NOZIP:
            return StatusCode::InvalidArgument;
        case ZIP_ER_MEMORY:
            return StatusCode::OutOfMemory;
        case ZIP_ER_COMPNOTSUPP:
        case ZIP_ER_ENCRNOTSUPP:
            return StatusCode::NotSupported;
        case ZIP_ER_NOPASSWD:
            return StatusCode::NotPermitted;
        case ZIP_ER_WRONGPASSWD:
            return StatusCode::AccessDenied;
        default:
            return StatusCode::Failure;
    }
}

}  // namespace mwl::Utilities

TERN_STATIC_TEXT(mwl::Utilities::Zipper::RELATIVE_PATH_STRING, _ZN3mwl9Utilities6Zipper20RELATIVE_PATH_STRING,
                 "../");
