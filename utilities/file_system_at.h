#pragma once

#include <sys/types.h>
#include <tern/foundation/status_code.h>

#include <string>

#include "foundation/unique_fd.h"

namespace mwl::Utilities {

/// The operations of FileSystem on descriptors, for those that work in a tree. `path` is the entry's name in
/// messages; messages and results are those of the operation of that name.

struct FolderRequest {
    int at;
    const char* name;
    const std::string& path;
    bool mustBeFolder;        ///< a file that is there already is not taken
    bool followsTrustedLink;  ///< a link of root or of this user may stand for the folder that it leads to
};
/// CreateFolder; `folder` is what there is then, opened with O_PATH.
StatusCode CreateFolderAt(const FolderRequest& request, UniqueFd& folder);

/// SetDefaultAccessRights.
StatusCode SetDefaultAccessRightsOn(int file, const std::string& path);

/// One end of a copy: a file by its name in a folder.
struct CopyEnd {
    int at;
    const char* name;
    const std::string& path;
    /// A link in its place is followed, and a device may stand there. Otherwise only a regular file is taken.
    bool isTrusted;
};
enum class CopyAmount {
    OneTransfer,  ///< what a single sendfile(2) transfers, which must be all
    Whole,        ///< until the end of the source
};
/// CopyFile. `copy` is the destination, still open; a failure that closing it could report has been reported.
StatusCode CopyFileAt(const CopyEnd& from, const CopyEnd& to, CopyAmount amount, UniqueFd& copy);

}  // namespace mwl::Utilities
