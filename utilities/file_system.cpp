#include <tern/utilities/file_system.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <tern/foundation/log.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string_view>
#include <utility>

#include "foundation/error_text.h"
#include "foundation/handle.h"
#include "foundation/unique_fd.h"
#include "platform/static_text.h"
#include "utilities/directory.h"
#include "utilities/file_system_messages.h"
#include "utilities/file_system_write.h"

namespace mwl::Utilities {

using mw::tern::MakeStatusCodeFromErrno;

const StaticText FILE_SYSTEM_LOGGER("mwl::Utilities::FileSystem");

namespace {

constexpr std::size_t LINK_BUFFER = 4096;
constexpr mode_t CONTENT_MODE = 0666;
/// The link to the file of the running program, and how its text ends when that has no name any more.
constexpr const char* EXECUTABLE = "/proc/self/exe";
constexpr std::string_view DELETED = " (deleted)";

/// Takes the kernel's mark off the path of a program whose file has been removed or replaced since its start
/// (proc(5)). A file may really be called so.
void CutDeletedMark(std::string& path) {
    if (!path.ends_with(DELETED)) {
        return;
    }
    struct stat named {};
    struct stat running {};
    const bool isItsName = stat(path.c_str(), &named) == 0 && stat(EXECUTABLE, &running) == 0 &&
                           named.st_dev == running.st_dev && named.st_ino == running.st_ino;
    if (!isItsName) {
        path.resize(path.size() - DELETED.size());
    }
}

/// Calls `take(name)` for every entry of the type in the folder; `operation` is its name in the messages.
template <typename Take>
StatusCode ListEntries(const char* operation, const std::string& folder, unsigned char type, Take take) {
    Directory directory(folder);
    if (!directory) {
        const int error = errno;
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Fail to open directory [%s], errno: %s", operation,
                       folder.c_str(), ErrorText(error));
        return StatusCode::Failure;
    }
    while (const dirent* entry = directory.Next()) {
        if (entry->d_type == type) {
            take(std::string(entry->d_name));
        }
    }
    const StatusCode status = errno == 0 ? StatusCode::Ok : FailedToReadDirectory(operation, folder, errno);
    if (directory.Close() != 0) {
        // The list is complete, so the caller has it as a success.
        const int error = errno;
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to close directory [%s], errno: %s", operation,
                       folder.c_str(), ErrorText(error));
    }
    return status;
}

bool HasExtension(const std::string& name, const std::string& extension) {
    if (extension.empty()) {
        return true;
    }
    const std::size_t separator = name.rfind(FileSystem::FILENAME_EXTENSION_SEPARATOR);
    return separator != std::string::npos && name.compare(separator + 1, std::string::npos, extension) == 0;
}

}  // namespace

FileSystem::~FileSystem() = default;

StatusCode FileSystem::ListFilesWithFileNameExtension(const std::string& folder, const std::string& extension,
                                                      std::set<std::string>& files) const {
    return ListEntries("ListFilesWithFileNameExtension", folder, DT_REG, [&](std::string name) {
        if (HasExtension(name, extension)) {
            files.insert(std::move(name));
        }
    });
}

StatusCode FileSystem::ListFiles(const std::string& folder, std::set<std::string>& files) {
    return ListFilesWithFileNameExtension(folder, "", files);
}

StatusCode FileSystem::ListDirectories(const std::string& folder,
                                       std::unordered_set<std::string>& folders) const {
    return ListEntries("ListDirectories", folder, DT_DIR,
                       [&](std::string name) { folders.insert(std::move(name)); });
}

StatusCode FileSystem::FileExists(const std::string& path) {
    return CheckFileExist(path);
}

StatusCode FileSystem::RemoveFile(const std::string& path) {
    return DeleteFile(path);
}

StatusCode FileSystem::IsFolderEmpty(const std::string& folder, bool& empty) const {
    empty = true;
    Directory directory(folder);
    if (!directory) {
        const int error = errno;
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to open dir %s, errno = %s", "IsFolderEmpty",
                       folder.c_str(), ErrorText(error));
        return StatusCode::NotFound;
    }
    empty = directory.Next() == nullptr;
    return empty && errno != 0 ? FailedToReadDirectory("IsFolderEmpty", folder, errno) : StatusCode::Ok;
}

StatusCode FileSystem::RenameFile(const std::string& from, const std::string& to) {
    return Rename(from, to);
}

StatusCode FileSystem::CreateSymbolicLink(const std::string& target, const std::string& link) {
    if (symlink(target.c_str(), link.c_str()) != 0) {
        const int error = errno;
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER,
                       "CreateSymbolicLink: Failed to create a symbolic link for %s -> %s, errno: %s",
                       link.c_str(), target.c_str(), ErrorText(error));
        return MakeStatusCodeFromErrno(error);
    }
    return StatusCode::Ok;
}

StatusCode FileSystem::DeleteSymbolicLink(const std::string& link) {
    if (unlink(link.c_str()) != 0) {
        const int error = errno;
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER,
                       "DeleteSymbolicLink: Failed to delete the symbolic link %s, errno: %s", link.c_str(),
                       ErrorText(error));
        return MakeStatusCodeFromErrno(error);
    }
    return StatusCode::Ok;
}

StatusCode FileSystem::CheckFileExist(const std::string& path) {
    struct stat information {};
    if (stat(path.c_str(), &information) != 0) {
        TERN_LOG_TRACE(FILE_SYSTEM_LOGGER, "%s: file '%s' does not exist", "CheckFileExist", path.c_str());
        return StatusCode::NotFound;
    }
    return StatusCode::Ok;
}

StatusCode FileSystem::CheckDirectoryExist(const std::string& path) {
    struct stat information {};
    if (stat(path.c_str(), &information) != 0) {
        TERN_LOG_INFO(FILE_SYSTEM_LOGGER, "Directory [%s] does not exist", path.c_str());
        return StatusCode::NotFound;
    }
    if (!S_ISDIR(information.st_mode)) {
        TERN_LOG_INFO(FILE_SYSTEM_LOGGER, "[%s] is not a directory", path.c_str());
        return StatusCode::NotFound;
    }
    TERN_LOG_INFO(FILE_SYSTEM_LOGGER, "Directory [%s] found!", path.c_str());
    return StatusCode::Ok;
}

StatusCode FileSystem::Rename(const std::string& from, const std::string& to) {
    if (rename(from.c_str(), to.c_str()) != 0) {
        const int error = errno;
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "Rename: Failed to rename '%s' to '%s' (errno=%s)", from.c_str(),
                       to.c_str(), ErrorText(error));
        return MakeStatusCodeFromErrno(error);
    }
    TERN_LOG_INFO(FILE_SYSTEM_LOGGER, "Rename: Successfully renamed '%s' to '%s'", from.c_str(), to.c_str());
    return StatusCode::Ok;
}

StatusCode FileSystem::ReadLink(const std::string& link, std::string& target) {
    char buffer[LINK_BUFFER];
    const ssize_t length = readlink(link.c_str(), buffer, sizeof buffer - 1);
    if (length < 0) {
        const int error = errno;
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "ReadLink: Failed to readlink '%s' (errno=%s)", link.c_str(),
                       ErrorText(error));
        return MakeStatusCodeFromErrno(error);
    }
    buffer[length] = '\0';
    TERN_LOG_INFO(FILE_SYSTEM_LOGGER, "ReadLink: Successful '%s' to '%s'", link.c_str(), buffer);
    // Last, because both arguments may be the same string.
    target.assign(buffer, static_cast<std::size_t>(length));
    return StatusCode::Ok;
}

StatusCode FileSystem::GetCurrentExecutableName(std::string& name) {
    const StatusCode status = ReadLink(EXECUTABLE, name);
    if (status == StatusCode::Ok) {
        CutDeletedMark(name);
    }
    // Fixed by the interface: also after a failure, when `name` is what the caller had in it.
    name.erase(0, name.rfind(FOLDER_SEPARATOR) + 1);
    return status;
}

StatusCode FileSystem::WriteContent(const std::string& path, const std::string& content) {
    const Handle<std::FILE, std::fclose> file(std::fopen(path.c_str(), "we"));
    if (file == nullptr) {
        const int error = errno;
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Unable to write file content to '%s' (errno=%s) ",
                       "WriteContent", path.c_str(), ErrorText(error));
        return MakeStatusCodeFromErrno(error);
    }
    // Fixed by the interface: what becomes of the writing is not looked at; WriteWholeContent does.
    static_cast<void>(std::fwrite(content.data(), 1, content.size(), file.get()));
    TERN_LOG_INFO(FILE_SYSTEM_LOGGER, "%s: Successfully wrote content to file %s", "WriteContent",
                  path.c_str());
    return StatusCode::Ok;
}

StatusCode FileSystem::WriteWholeContent(const std::string& path, const std::string& content) {
    UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, CONTENT_MODE));
    int error = file ? WriteAll(file.Get(), content.data(), content.size()) : errno;
    if (error == 0) {
        error = StoreAndClose(file);
    }
    if (error != 0) {
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "WriteWholeContent: Failed to write file '%s' (errno=%s)",
                       path.c_str(), ErrorText(error));
        return MakeStatusCodeFromErrno(error);
    }
    return StatusCode::Ok;
}

}  // namespace mwl::Utilities

TERN_STATIC_TEXT(mwl::Utilities::FileSystem::FOLDER_SEPARATOR,
                 _ZN3mwl9Utilities10FileSystem16FOLDER_SEPARATOR, "/");
TERN_STATIC_TEXT(mwl::Utilities::FileSystem::FILENAME_EXTENSION_SEPARATOR,
                 _ZN3mwl9Utilities10FileSystem28FILENAME_EXTENSION_SEPARATOR, ".");
