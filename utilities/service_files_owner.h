#pragma once

#include <sys/types.h>
#include <tern/foundation/status_code.h>

#include <functional>
#include <string>

namespace mwl::Utilities {

/// Gives entries to the user of the service files. One object looks the user and the group up until they are
/// found, then no more: a tree of many files costs one look-up. One thread at a time.
class ServiceFilesOwner {
public:
    /// As FileSystem::SetMeadowOwner, messages included, for an open file that messages call `path`.
    StatusCode SetOn(int file, const std::string& path);
    /// The same by `change`, a call of the chown(2) family.
    StatusCode SetBy(const std::function<int(uid_t, gid_t)>& change, const std::string& path);

private:
    bool mFound = false;
    uid_t mUser = 0;
    gid_t mGroup = 0;
};

}  // namespace mwl::Utilities
