#include "utilities/file_system_walk.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

namespace mwl::Utilities {

namespace {

/// Folders that a walk keeps open simultaneously, not counting those of links that it followed.
constexpr std::size_t OPEN_FOLDERS = 4;

}  // namespace

int FolderWalk::Level::Descriptor() const {
    if (directory) {
        return directory.Descriptor();
    }
    return folder ? folder.Get() : AT_FDCWD;
}

void FolderWalk::Level::CloseEarly() {
    if (directory) {
        while (const dirent* entry = directory.Next()) {
            rest.emplace_back(entry->d_name, entry->d_type);
        }
        error = errno;
        isRemembered = true;
        directory = Directory();
    }
    folder.Reset();
    isOpen = false;
}

bool FolderWalk::Open(int at, const char* path, Links links) {
    UniqueFd folder = OpenFolder(at, path, links);
    if (!folder || !Push(std::move(folder), links)) {
        return false;
    }
    mLevels.back().staysOpen = true;
    return true;
}

void FolderWalk::OpenNowhere() {
    Level level;
    level.staysOpen = true;
    mLevels.push_back(std::move(level));
    ++mOpen;
}

bool FolderWalk::Enter(const char* name, Links links) {
    UniqueFd folder = OpenFolder(Descriptor(), name, links);
    return folder && Push(std::move(folder), links);
}

bool FolderWalk::Enter(UniqueFd folder) {
    return Push(std::move(folder), Links::NotFollowed);
}

bool FolderWalk::Leave(int& closeError) {
    Level& above = mLevels[mLevels.size() - 2];
    int error = 0;
    if (!above.isOpen) {
        above.folder = OpenFolder(Descriptor(), "..", Links::NotFollowed);
        FolderIdentity identity;
        if (!above.folder || !identity.Read(above.folder.Get())) {
            error = errno;
        } else if (!(identity == above.identity)) {
            error = ESTALE;
        }
        above.isOpen = true;
        ++mOpen;
    }
    closeError = mLevels.back().directory && mLevels.back().directory.Close() != 0 ? errno : 0;
    mLevels.pop_back();
    --mOpen;
    mLevels.back().staysOpen = mLevels.size() == 1;
    mUppermost = std::min(mUppermost, mLevels.size() - 1);
    errno = error;
    return error == 0;
}

int FolderWalk::Close() {
    const int error = mLevels.back().directory && mLevels.back().directory.Close() != 0 ? errno : 0;
    mLevels.clear();
    mOpen = 0;
    mUppermost = 0;
    return error;
}

const FolderWalk::Entry* FolderWalk::Next() {
    Level& level = mLevels.back();
    if (level.isRemembered) {
        if (level.next == level.rest.size()) {
            errno = level.error;
            return nullptr;
        }
        const auto& [name, type] = level.rest[level.next++];
        mEntry = {name.c_str(), type};
        return &mEntry;
    }
    const dirent* const entry = level.directory.Next();
    if (entry == nullptr) {
        return nullptr;
    }
    mEntry = {entry->d_name, entry->d_type};
    return &mEntry;
}

bool FolderWalk::Push(UniqueFd folder, Links links) {
    Level level;
    if (!level.identity.Read(folder.Get())) {
        return false;
    }
    if ((mFlags & O_PATH) != 0) {
        level.folder = std::move(folder);
    } else {
        level.directory = Directory(folder);
        if (!level.directory) {
            return false;
        }
    }
    mLevels.push_back(std::move(level));
    ++mOpen;
    if (mLevels.size() > 1 && links == Links::Followed) {
        mLevels[mLevels.size() - 2].staysOpen = true;
    }
    while (mOpen > OPEN_FOLDERS && CloseOne()) {
    }
    return true;
}

UniqueFd FolderWalk::OpenFolder(int at, const char* name, Links links) const {
    const int noLinks = links == Links::NotFollowed ? O_NOFOLLOW : 0;
    return UniqueFd(openat(at, name, mFlags | O_DIRECTORY | O_CLOEXEC | noLinks));
}

/// Closes the uppermost folder that can be closed, never the one that the walk is in; false when there is
/// none.
bool FolderWalk::CloseOne() {
    for (; mUppermost + 1 < mLevels.size(); ++mUppermost) {
        Level& level = mLevels[mUppermost];
        if (level.isOpen && !level.staysOpen) {
            level.CloseEarly();
            --mOpen;
            return true;
        }
    }
    return false;
}

}  // namespace mwl::Utilities
