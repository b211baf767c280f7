#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "foundation/unique_fd.h"
#include "utilities/directory.h"

namespace mwl::Utilities {

/// Which folder it is, whatever its name.
struct FolderIdentity {
    dev_t device = 0;
    ino_t inode = 0;

    /// That of an open folder; false with `errno`.
    bool Read(int folder) {
        struct stat information {};
        const bool isRead = fstat(folder, &information) == 0;
        device = information.st_dev;
        inode = information.st_ino;
        return isRead;
    }
    friend bool operator==(const FolderIdentity& a, const FolderIdentity& b) = default;
};

/// The way down into a tree and back, on descriptors: each folder is opened in the one above it, so nothing
/// that somebody does meanwhile to the names on the way leads the walk elsewhere.
///
/// A tree may be of any depth. Only the folder that the walk began in and some of the lowest stay open; one
/// that is closed early has the rest of its entries remembered, and is opened again, on the way back, as ".."
/// of the one below it. When that is no longer the folder that it was, the walk cannot go on (ESTALE). One
/// thread at a time.
class FolderWalk {
public:
    enum class Links { Followed, NotFollowed };

    /// `flags` of openat(2): O_RDONLY to read the folders' entries, or O_PATH only to be in them.
    explicit FolderWalk(int flags) : mFlags(flags) {}

    /// Begins in the folder at `path` in `at`; false with `errno`.
    bool Open(int at, const char* path, Links links);
    /// Begins in no folder of its own: names are taken as paths (AT_FDCWD).
    void OpenNowhere();

    /// Goes down into the folder `name`; false with `errno`, and then the walk is where it was.
    bool Enter(const char* name, Links links);
    /// Goes down into a folder that has been opened in this one.
    bool Enter(UniqueFd folder);
    /// Opens a folder as this walk does, for Enter. None with `errno`.
    UniqueFd OpenFolder(int at, const char* name, Links links) const;
    /// Goes back up. False with `errno` when the folder above cannot be opened again: the walk is over.
    /// `closeError` is 0 or why the folder that was left did not close (closedir(3)).
    bool Leave(int& closeError);
    /// Ends the walk in the folder that it began in; 0 or why that did not close.
    int Close();

    /// The next entry of the folder other than "." and "..", valid until the next call; its name stays valid
    /// until the folder is left or read on. Null at the end, and then `errno` is 0 unless reading failed.
    struct Entry {
        const char* name;
        unsigned char type;  ///< as d_type of readdir(3)
    };
    const Entry* Next();

    /// The folder that the walk is in; valid until it goes elsewhere.
    int Descriptor() const { return mLevels.back().Descriptor(); }
    const FolderIdentity& Identity() const { return mLevels.back().identity; }
    /// 1 in the folder that the walk began in.
    std::size_t Depth() const { return mLevels.size(); }

private:
    struct Level {
        UniqueFd folder;      // until it is read
        Directory directory;  // since then
        bool isOpen = true;
        bool staysOpen = false;  // ".." of the one below it leads elsewhere
        bool isRemembered = false;
        FolderIdentity identity;
        // Once closed early: what was still to be read, from `next` on, and how reading it ended.
        std::vector<std::pair<std::string, unsigned char>> rest;
        std::size_t next = 0;
        int error = 0;

        int Descriptor() const;
        void CloseEarly();
    };

    bool Push(UniqueFd folder, Links links);
    bool CloseOne();

    int mFlags;
    std::vector<Level> mLevels;
    Entry mEntry{};
    std::size_t mOpen = 0;       // levels that are open
    std::size_t mUppermost = 0;  // none above this one can be closed
};

}  // namespace mwl::Utilities
