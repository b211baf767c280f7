#pragma once

#include <sys/types.h>

#include <string>

namespace mwl::Utilities {

/// Look-ups in the user database by its reentrant calls (getpwnam_r(3)). Each returns whether there is such
/// an entry and stores what was asked for; otherwise `error` says why, 0 when there simply is none.
/// Thread-safe.
bool FindUser(const std::string& name, uid_t& uid, int& error);
bool FindUserName(uid_t uid, std::string& name, int& error);
bool FindGroup(const std::string& name, gid_t& gid, int& error);

}  // namespace mwl::Utilities
