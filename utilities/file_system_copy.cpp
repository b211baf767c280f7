#include <fcntl.h>
#include <limits.h>
#include <tern/foundation/log.h>
#include <tern/utilities/file_system.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "foundation/error_text.h"
#include "foundation/unique_fd.h"
#include "utilities/file_system_at.h"
#include "utilities/file_system_messages.h"
#include "utilities/file_system_walk.h"
#include "utilities/service_files_owner.h"

namespace mwl::Utilities {

using mw::tern::ConvertStatusCodeToString;
using mw::tern::MakeStatusCodeFromErrno;

namespace {

/// Copies what is in one folder into another. Both trees are walked on descriptors; paths serve the messages.
class FolderCopy {
public:
    FolderCopy(const std::string& source, const std::string& destination, CopyAmount amount)
        : mAmount(amount), mFromPath(source), mToPath(destination), mIsSourceFolder(source.ends_with('/')) {}

    /// The result of CopyFolderContent.
    StatusCode Run(bool includeFolders, bool includeFiles);
    /// Of everything that was to be copied: the first failure, or Ok.
    StatusCode FirstFailure() const { return mFirstFailure; }

private:
    struct Level {
        std::size_t fromLength;  // of the paths of the folder above
        std::size_t toLength;
        // Fixed by the interface: nothing copied is NotFound, and each entry's result covers the ones before
        // it.
        StatusCode result = StatusCode::NotFound;
    };

    void OpenDestination();
    bool CopyEntry(const FolderWalk::Entry& entry, bool includeFolders, bool includeFiles);
    StatusCode CopyRegularFile(const char* name);
    bool CopySubFolder(const char* name, const Level& above);
    bool LeaveSubFolder();
    StatusCode FailedToOpenSource();
    StatusCode FailedToCopySubFolder(StatusCode status);
    static void TellUnclosed(int error);

    /// Names are appended to the given paths as they are. Only behind a separator does that name an entry of
    /// the given folder.
    bool IsNameInSource() const { return mFrom.Depth() > 1 || mIsSourceFolder; }
    bool IsNameInDestination() const { return mTo.Depth() > 1 || mIsDestinationOpen; }
    CopyEnd From(const char* name) const {
        return IsNameInSource() ? CopyEnd{mFrom.Descriptor(), name, mFromPath, false}
                                : CopyEnd{AT_FDCWD, mFromPath.c_str(), mFromPath, false};
    }
    CopyEnd To(const char* name) const {
        return IsNameInDestination() ? CopyEnd{mTo.Descriptor(), name, mToPath, false}
                                     : CopyEnd{AT_FDCWD, mToPath.c_str(), mToPath, false};
    }

    void Record(StatusCode result) {
        mLevels.back().result = result;
        RecordFailure(result);
    }
    void RecordFailure(StatusCode result) {
        if (mFirstFailure == StatusCode::Ok) {
            mFirstFailure = result;
        }
    }

    const CopyAmount mAmount;
    FolderWalk mFrom{O_RDONLY};
    FolderWalk mTo{O_PATH};
    std::string mFromPath;  // of the folder that the walk is in, and behind it the entry that is being copied
    std::string mToPath;
    const bool mIsSourceFolder;
    bool mIsDestinationOpen = false;
    FolderIdentity mDestination;
    std::vector<Level> mLevels;
    ServiceFilesOwner mOwner;
    StatusCode mFirstFailure = StatusCode::Ok;
};

StatusCode FolderCopy::Run(bool includeFolders, bool includeFiles) {
    if (!mFrom.Open(AT_FDCWD, mFromPath.c_str(), FolderWalk::Links::Followed)) {
        RecordFailure(StatusCode::Failure);
        return FailedToOpenSource();
    }
    OpenDestination();
    mLevels.push_back({mFromPath.size(), mToPath.size()});
    while (true) {
        const FolderWalk::Entry* const entry = mFrom.Next();
        if (entry != nullptr) {
            // Fixed by the interface: what is below the first level is copied whole, whatever was chosen for
            // that level.
            const bool isBelow = mLevels.size() > 1;
            if (!CopyEntry(*entry, includeFolders || isBelow, includeFiles || isBelow)) {
                return mLevels.back().result;
            }
            continue;
        }
        if (errno != 0) {
            Record(FailedToReadDirectory("CopyFolderContent", mFromPath, errno));
        }
        if (mLevels.size() == 1) {
            TellUnclosed(mFrom.Close());
            return mLevels.back().result;
        }
        if (!LeaveSubFolder()) {
            return mLevels.back().result;
        }
    }
}

void FolderCopy::OpenDestination() {
    mIsDestinationOpen =
        mToPath.ends_with('/') && mTo.Open(AT_FDCWD, mToPath.c_str(), FolderWalk::Links::Followed);
    if (mIsDestinationOpen) {
        mDestination = mTo.Identity();
    } else {
        mTo.OpenNowhere();  // every entry will report what is wrong with it
    }
}

/// False when the walk is over.
bool FolderCopy::CopyEntry(const FolderWalk::Entry& entry, bool includeFolders, bool includeFiles) {
    const Level above{mFromPath.size(), mToPath.size()};
    const std::size_t depth = mLevels.size();
    bool goesOn = true;
    mFromPath += entry.name;
    if (entry.type == DT_REG && includeFiles) {
        mToPath += entry.name;
        Record(CopyRegularFile(entry.name));
    } else if (entry.type == DT_DIR && includeFolders) {
        mToPath += entry.name;
        goesOn = CopySubFolder(entry.name, above);
    } else if (entry.type == DT_REG) {
        TERN_LOG_TRACE(FILE_SYSTEM_LOGGER, "%s: includeFiles=false, %s is not copied to %s",
                       "CopyFolderContent", mFromPath.c_str(), mToPath.c_str());
    } else if (entry.type == DT_DIR) {
        TERN_LOG_TRACE(FILE_SYSTEM_LOGGER, "%s: includeFolders=false, %s is not copied to %s",
                       "CopyFolderContent", mFromPath.c_str(), mToPath.c_str());
    } else {
        TERN_LOG_INFO(FILE_SYSTEM_LOGGER, "%s: File %s, type (%u) is not supported", "CopyFolderContent",
                      entry.name, static_cast<unsigned int>(entry.type));
        RecordFailure(StatusCode::NotSupported);
    }
    if (mLevels.size() == depth) {
        mFromPath.resize(above.fromLength);
        mToPath.resize(above.toLength);
    }
    return goesOn;
}

/// Copies one regular file and gives it to the service user.
StatusCode FolderCopy::CopyRegularFile(const char* name) {
    UniqueFd copy;
    const StatusCode status = CopyFileAt(From(name), To(name), mAmount, copy);
    TERN_LOG_INFO(FILE_SYSTEM_LOGGER, "%s: Copy %s to %s, status = %s", "CopyFolderContent",
                  mFromPath.c_str(), mToPath.c_str(), ConvertStatusCodeToString(status).c_str());
    if (status != StatusCode::Ok) {
        TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to copy file (%s), status = %s", "CopyFolderContent",
                       mFromPath.c_str(), ConvertStatusCodeToString(status).c_str());
        return status;
    }
    // Fixed by the interface: a file that was copied is a success, whoever owns it.
    if (mOwner.SetOn(copy.Get(), mToPath) != StatusCode::Ok) {
        TERN_LOG_WARNING(FILE_SYSTEM_LOGGER, "%s: Failed to set meadow owner for %s", "CopyFolderContent",
                         mToPath.c_str());
    } else if (SetDefaultAccessRightsOn(copy.Get(), mToPath) != StatusCode::Ok) {
        TERN_LOG_WARNING(FILE_SYSTEM_LOGGER, "%s: Failed to set default meadow rights for %s",
                         "CopyFolderContent", mToPath.c_str());
    }
    return StatusCode::Ok;
}

/// Makes the sub-folder and goes down into both; false when the walk is over. `above` has the paths of the
/// folder above.
bool FolderCopy::CopySubFolder(const char* name, const Level& above) {
    const CopyEnd from = From(name);
    const bool isTooLong = mFromPath.size() + 1 >= PATH_MAX;
    UniqueFd source =
        isTooLong ? UniqueFd() : mFrom.OpenFolder(from.at, from.name, FolderWalk::Links::NotFollowed);
    // Looked at before anything is created: it may be the copy itself, which would never end.
    FolderIdentity identity;
    if (source && mIsDestinationOpen && identity.Read(source.Get()) && identity == mDestination) {
        Record(FailedToCopySubFolder(StatusCode::InvalidArgument));
        return true;
    }
    const CopyEnd to = To(name);
    UniqueFd made;
    const StatusCode status = CreateFolderAt({to.at, to.name, mToPath, false, false}, made);
    if (status != StatusCode::Ok) {
        Record(status);
        return true;
    }
    mFromPath += FileSystem::FOLDER_SEPARATOR;
    mToPath += FileSystem::FOLDER_SEPARATOR;
    if (source && mTo.Enter(std::move(made))) {
        if (mFrom.Enter(std::move(source))) {
            mLevels.push_back(above);
            return true;
        }
        int unused = 0;
        if (!mTo.Leave(unused)) {
            Record(FailedToReadDirectory("CopyFolderContent", mFromPath, errno));
            return false;
        }
    }
    Record(FailedToCopySubFolder(FailedToOpenSource()));
    return true;
}

/// Goes back up from a folder that was copied; false when the walk is over.
bool FolderCopy::LeaveSubFolder() {
    const Level level = mLevels.back();
    int closeError = 0;
    const int fromError = mFrom.Leave(closeError) ? 0 : errno;
    int unused = 0;
    const int toError = mTo.Leave(unused) ? 0 : errno;
    TellUnclosed(closeError);
    mLevels.pop_back();
    if (level.result == StatusCode::NotFound) {
        TERN_LOG_INFO(FILE_SYSTEM_LOGGER, "%s: Copy empty %s to %s, status = %s", "CopyFolderContent",
                      mFromPath.c_str(), mToPath.c_str(), ConvertStatusCodeToString(StatusCode::Ok).c_str());
        Record(StatusCode::Ok);
    } else if (level.result != StatusCode::Ok) {
        Record(FailedToCopySubFolder(level.result));
    } else {
        TERN_LOG_INFO(FILE_SYSTEM_LOGGER, "%s: Copy %s to %s, status = %s", "CopyFolderContent",
                      mFromPath.c_str(), mToPath.c_str(), ConvertStatusCodeToString(StatusCode::Ok).c_str());
        Record(StatusCode::Ok);
    }
    mFromPath.resize(level.fromLength);
    mToPath.resize(level.toLength);
    if (fromError != 0 || toError != 0) {
        // Somebody moved a folder away while the walk was below it.
        Record(FailedToReadDirectory("CopyFolderContent", mFromPath, fromError != 0 ? fromError : toError));
        return false;
    }
    return true;
}

StatusCode FolderCopy::FailedToOpenSource() {
    TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to open directory: %s", "CopyFolderContent",
                   mFromPath.c_str());
    return StatusCode::Failure;
}

StatusCode FolderCopy::FailedToCopySubFolder(StatusCode status) {
    TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "%s: Failed to copy sub-folder (%s), status = %s", "CopyFolderContent",
                   mFromPath.c_str(), ConvertStatusCodeToString(status).c_str());
    return status;
}

void FolderCopy::TellUnclosed(int error) {
    if (error != 0) {
        TERN_LOG_WARNING(FILE_SYSTEM_LOGGER, "%s: Failed to close directory, errno: %s", "CopyFolderContent",
                         ErrorText(error));
    }
}

/// Brings what was copied onto its medium: for all files in one call, because one by one takes many times as
/// long.
StatusCode StoreFolder(const std::string& destination) {
    const std::string path = destination.substr(0, destination.rfind('/') + 1);
    const UniqueFd folder(open(path.empty() ? "." : path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder && syncfs(folder.Get()) == 0) {
        return StatusCode::Ok;
    }
    const int error = errno;
    TERN_LOG_ERROR(FILE_SYSTEM_LOGGER, "CopyWholeFolderContent: Failed to store what is in %s, errno = %s",
                   destination.c_str(), ErrorText(error));
    return MakeStatusCodeFromErrno(error);
}

}  // namespace

StatusCode FileSystem::CopyFolderContent(const std::string& source, const std::string& destination,
                                         bool includeFolders, bool includeFiles) {
    return FolderCopy(source, destination, CopyAmount::OneTransfer).Run(includeFolders, includeFiles);
}

StatusCode FileSystem::CopyWholeFolderContent(const std::string& source, const std::string& destination) {
    FolderCopy copy(source, destination, CopyAmount::Whole);
    static_cast<void>(copy.Run(true, true));  // what FirstFailure reports covers it
    return copy.FirstFailure() == StatusCode::Ok ? StoreFolder(destination) : copy.FirstFailure();
}

}  // namespace mwl::Utilities
