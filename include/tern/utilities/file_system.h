#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

#include <set>
#include <string>
#include <unordered_set>

namespace mwl::Utilities {

/// The one place for work on files and folders: existence, listing, creating, copying, deleting, links,
/// owners and modes, disk usage. Every operation works synchronously, logs its own failure under the logger
/// name "mwl::Utilities::FileSystem" and returns a status, so a caller only tests the result.
///
/// Some operations do what they are described to do and may lose data without a word. Each has a twin that
/// answers `Ok` only when everything arrived on its medium:
/// - `WriteContent` is `Ok` on a full disk: `WriteWholeContent`.
/// - `CopyFile` does not know files over 2 GiB and those without a size, and reports so (`IoError`):
///   `CopyWholeFile`.
/// - `CopyFolderContent` may cover a failure by a later success: `CopyWholeFolderContent`.
///
/// Links. An operation follows a link in the place of a path that it is given, as the system calls do, unless
/// it says otherwise: as root, do not give it paths in folders where somebody less privileged writes. The
/// operations on a tree (`DeleteFolder`, `DeleteFolderContent`, `CopyFolderContent`,
/// `CopyWholeFolderContent`) may be used there. Below the folders that it is given it follows no link, and
/// nothing that is planted or exchanged meanwhile leads it elsewhere. Hard links are the kernel's matter
/// (fs.protected_hardlinks).
///
/// Trees may be of any depth: a walk holds 6 descriptors at most, a copy 12. Copying ends at paths of 4096
/// bytes (ENAMETOOLONG), as system calls do.
///
/// The static operations need no object. An object serves the virtual ones, so that a derived class can
/// replace them, in tests for example.
///
/// Thread-safe: no state is shared. Operations on a tree are not atomic against concurrent changes of it, and
/// one entry that vanishes meanwhile is a failure like any other. No operation holds a descriptor that a
/// program started meanwhile would inherit. Apart from std::bad_alloc nothing throws.
///
/// "The status of errno" below is `MakeStatusCodeFromErrno(errno)` of the call that failed: `NotFound` for
/// ENOENT, `AccessDenied` for EACCES, `Failure` for what has no status of its own. Where an operation says
/// `Failure`, it is that value whatever the error number. Output arguments stay untouched on failure unless
/// said otherwise.
///
///     if (FileSystem::CheckFileExist("/data/app") != StatusCode::Ok &&
///         FileSystem::CreateFolder("/data/app") == StatusCode::Ok) {
///         FileSystem::CopyFolderContent("/usr/share/app/", "/data/app/", true, true);
///     }
class TERN_API FileSystem {
public:
    static const std::string FOLDER_SEPARATOR;              ///< "/"
    static const std::string FILENAME_EXTENSION_SEPARATOR;  ///< "."

    virtual ~FileSystem();

    /// Inserts into `files` the bare names of the regular files of `folder` whose text behind the last "."
    /// is `extension`, given without its dot, whole and case-sensitively; every regular file when `extension`
    /// is empty. Earlier content of `files` stays. Links, also to regular files, are not listed, nor are
    /// entries whose type the file system does not report (DT_UNKNOWN of readdir(3)).
    /// Returns `Ok`, also when closing fails (logged); `Failure` when `folder` cannot be opened (opendir(3));
    /// the status of errno when it cannot be read to its end, with what was read inserted.
    virtual StatusCode ListFilesWithFileNameExtension(const std::string& folder, const std::string& extension,
                                                      std::set<std::string>& files) const;
    /// `ListFilesWithFileNameExtension` with an empty extension.
    virtual StatusCode ListFiles(const std::string& folder, std::set<std::string>& files);
    /// Inserts into `folders` the bare names of the folders in `folder`. Links to folders and entries whose
    /// type the file system does not report are not listed. Results as ListFilesWithFileNameExtension.
    virtual StatusCode ListDirectories(const std::string& folder,
                                       std::unordered_set<std::string>& folders) const;
    /// `CheckFileExist`.
    virtual StatusCode FileExists(const std::string& path);
    /// `DeleteFile`.
    virtual StatusCode RemoveFile(const std::string& path);
    /// Whether `folder` holds no entry. `NotFound` when it cannot be opened, for whatever reason, the status
    /// of errno when it cannot be read; then `empty` is true.
    virtual StatusCode IsFolderEmpty(const std::string& folder, bool& empty) const;
    /// `Rename`.
    virtual StatusCode RenameFile(const std::string& from, const std::string& to);

    /// Makes one folder (its parent must exist) with mode 0775, whatever the umask, owned by the user of the
    /// calling process and by the group that bears that user's name. A path that exists already, even a file,
    /// gets that mode and owner. `Ok`, or the status of errno; `Failure` when the user or the group is
    /// unknown. After a failure the folder is removed if it is empty, also when it was there before.
    ///
    /// A link at `path` stands for the folder that it leads to when it is root's or the calling user's own;
    /// another one is refused with `Failure` (ELOOP). A link to a file is never followed (`NotFound`).
    static StatusCode CreateFolder(const std::string& path);
    /// Removes the whole tree at `path`; links are removed, not followed, `path` itself included, and other
    /// mounts are not entered, nor (since Linux 5.8) is what is mounted there from the same file system.
    /// Stops at the first entry that cannot be removed. `Ok`, or the status of errno; a missing `path` is
    /// `NotFound`; `Failure` also when a folder of the tree is moved away while the walk is deep below it
    /// (ESTALE). `quiet` leaves out the concluding message, not that of an entry.
    static StatusCode DeleteFolder(const std::string& path, bool quiet);
    /// Copies the content of one file by one call of sendfile(2), which transfers at most 2147479552 bytes:
    /// for larger files, and for those in /proc, whose size is reported as 0, use `CopyWholeFile`.
    ///
    /// An existing destination is replaced and keeps its mode and owner. A new one gets mode 1204 (octal)
    /// less the umask, with which even its owner may only write it: give it its rights afterwards.
    ///
    /// - Ok: all of it is copied, as far as the system reports without fsync(2).
    /// - IoError: less was copied than the source held, and then the destination is incomplete.
    /// - InvalidArgument: the source is no regular file (a FIFO is not waited for), or is the destination,
    ///   and stays whole; or the destination is a FIFO that nobody reads.
    /// - the status of errno: what else failed, closing the destination included.
    static StatusCode CopyFile(const std::string& source, const std::string& destination);
    /// As CopyFile, but copies a file of any size to its end, whatever its size is reported as, and sees it
    /// onto its medium (fsync(2)) before it answers `Ok`. Messages are those of CopyFile.
    static StatusCode CopyWholeFile(const std::string& source, const std::string& destination);
    /// Makes `link` a symbolic link to `target` (symlink(2)). `Ok`, or the status of errno.
    static StatusCode CreateSymbolicLink(const std::string& target, const std::string& link);
    /// Removes the link (unlink(2)), or any other entry that is not a folder. `Ok`, or the status of errno.
    static StatusCode DeleteSymbolicLink(const std::string& link);
    /// Gives `path` to the user "meadow" and the group "meadow" (chown(2), links followed). `Ok`; `Failure`
    /// when either is unknown or the owner cannot be changed.
    static StatusCode SetMeadowOwner(const std::string& path);
    /// Gives `path` the mode 0644 (chmod(2)). `Ok` or `Failure`.
    static StatusCode SetDefaultAccessRights(const std::string& path);
    /// Copies what is in `source` into the existing folder `destination`. May answer `Ok` although files are
    /// missing from the copy: where that matters, use `CopyWholeFolderContent`.
    /// REQUIRES: both end in "/" (names are appended as they are), and `destination` does not lie in `source`
    /// (where it is met it is left out with `InvalidArgument`).
    ///
    /// At the first level `includeFolders` and `includeFiles` choose what is copied; below it everything is.
    /// Files are given to "meadow" with mode 0644, folders are created as by CreateFolder; a failure of that
    /// is a warning for a file. Links and special files are left out, with an info message. In `destination`
    /// a link in the place of a file or folder is a failure (ELOOP: `Failure`), and so is another kind of
    /// entry in the place of a file (`InvalidArgument`).
    ///
    /// The copy goes on after a failure and returns what the last entry gave that was copied or failed: an
    /// earlier failure may be covered by a later success. `NotFound` when there was nothing to copy; empty
    /// sub-folders count as copied. `Failure` when `source` cannot be opened; the status of errno when it
    /// cannot be read to its end, whatever came before, and also when a folder is moved away while the walk
    /// is deep below it, which ends the copy.
    static StatusCode CopyFolderContent(const std::string& source, const std::string& destination,
                                        bool includeFolders, bool includeFiles);
    /// As CopyFolderContent of everything, but each file is copied as by CopyWholeFile, and the result is
    /// that of the first failure, which nothing covers; the copy goes on all the same. `Ok`: every entry has
    /// its copy, seen onto its medium (syncfs(2) of `destination`), also when there was none. `NotSupported`:
    /// a link or special file was left out. As there, owner and mode of a file give a warning only. Messages
    /// are those of CopyFolderContent.
    static StatusCode CopyWholeFolderContent(const std::string& source, const std::string& destination);
    /// Removes a file, a link or an empty folder (remove(3)). `Ok`; the status of errno, logged at info level
    /// only; `Failure` for an empty path.
    static StatusCode DeleteFile(const std::string& path);
    /// Removes the regular files (`includeFiles`) and the folders with their trees (`includeFolders`) in
    /// `folder`; other entries and `folder` itself stay. Goes on after a failure and returns the last one;
    /// `Ok` when there was none; `NotFound` when `folder` cannot be opened, for whatever reason; the status
    /// of errno when it cannot be read to its end.
    static StatusCode DeleteFolderContent(const std::string& folder, bool includeFolders, bool includeFiles);
    /// `Ok` when there is an entry of any type at `path`, links followed (stat(2)); else `NotFound`, also
    /// when it could not be reached.
    static StatusCode CheckFileExist(const std::string& path);
    /// `Ok` when there is a folder at `path`, links followed; else `NotFound`. Says so at info level.
    static StatusCode CheckDirectoryExist(const std::string& path);
    /// rename(2): within one file system, an existing `to` is replaced atomically. `Ok`, or the status of
    /// errno.
    static StatusCode Rename(const std::string& from, const std::string& to);
    /// Stores the text of the link in `target` (readlink(2), at most 4095 bytes). `Ok`, or the status of
    /// errno.
    static StatusCode ReadLink(const std::string& link, std::string& target);
    /// Stores the bare file name of the running program in `name`: the name that it was started by, also when
    /// the file has been removed or replaced since (an update in place). Results as ReadLink; when it fails,
    /// `name` is still cut to the text after its last "/".
    static StatusCode GetCurrentExecutableName(std::string& name);
    /// Gives `path` to the named user and group (chown(2), links followed). `Ok`; `Failure` when either is
    /// unknown; else the status of errno.
    static StatusCode ChangeOwnership(const std::string& path, const std::string& user,
                                      const std::string& group);
    /// Stores in `usage` the size of the one entry at `path`, links followed, in KiB: its length rounded up
    /// to whole I/O blocks (st_blksize of stat(2)), not what is allocated, modulo 2^32. For a folder that is
    /// the folder's own entry. `Ok`; `NotFound`, not logged, when the path does not exist or cannot be
    /// reached; else the status of errno.
    static StatusCode GetDiskUsage(const std::string& path, unsigned int& usage);
    /// Stores in `usage` the sum of GetDiskUsage of `path` and, for a folder, of everything below it, links
    /// to folders followed: what several links lead to counts several times. The first entry that cannot be
    /// measured, or folder that cannot be entered or read to its end, ends the walk with its status, a
    /// dangling link or a loop of links with `NotFound`, as is any way through more than 40 links; `usage` is
    /// then the sum so far.
    ///
    /// No folder is read more than twice, however many links lead to it: once a link to a folder was met,
    /// what each folder holds is remembered until the end, which takes some 100 bytes for each. A way that
    /// ends in a loop is walked down once. Links that are followed hold up to 41 descriptors more.
    static StatusCode GetRecursiveDiskUsage(const std::string& path, unsigned int& usage);
    /// Writes without looking at what becomes of it: `Ok` also when the disk is full. Where that matters, use
    /// `WriteWholeContent`. Makes `content` the whole content of the file at `path`, which is created (mode
    /// 0666 less the umask) or replaced. The status of errno when the file cannot be opened.
    static StatusCode WriteContent(const std::string& path, const std::string& content);
    /// As WriteContent, but `Ok` only when all of it is on its medium (write(2), fsync(2), close(2)). Else
    /// the status of errno, and then the file holds a part of it or nothing: to keep the former content on a
    /// full disk, write another file and `Rename` it.
    static StatusCode WriteWholeContent(const std::string& path, const std::string& content);
};

}  // namespace mwl::Utilities
