#include "utilities/user_database.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <cstddef>
#include <vector>

namespace mwl::Utilities {

namespace {

constexpr std::size_t FIRST_BUFFER = 1024;
/// Far above any group's list of members; ends the growth when the database never has enough.
constexpr std::size_t LARGEST_BUFFER = std::size_t{16} << 20U;

/// Calls `call(entry, buffer, size, result)` with a growing buffer, and `store(entry)` when it found one.
template <typename Entry, typename Call, typename Store>
bool LookUp(Call call, Store store, int& error) {
    std::vector<char> buffer(FIRST_BUFFER);
    Entry entry{};
    Entry* found = nullptr;
    error = call(&entry, buffer.data(), buffer.size(), &found);
    while (error == ERANGE && buffer.size() < LARGEST_BUFFER) {
        buffer.resize(2 * buffer.size());
        error = call(&entry, buffer.data(), buffer.size(), &found);
    }
    if (found == nullptr) {
        return false;
    }
    store(entry);
    return true;
}

}  // namespace

bool FindUser(const std::string& name, uid_t& uid, int& error) {
    return LookUp<passwd>([&](auto... rest) { return getpwnam_r(name.c_str(), rest...); },
                          [&](const passwd& user) { uid = user.pw_uid; }, error);
}

bool FindUserName(uid_t uid, std::string& name, int& error) {
    return LookUp<passwd>([&](auto... rest) { return getpwuid_r(uid, rest...); },
                          [&](const passwd& user) { name = user.pw_name; }, error);
}

bool FindGroup(const std::string& name, gid_t& gid, int& error) {
    return LookUp<group>([&](auto... rest) { return getgrnam_r(name.c_str(), rest...); },
                         [&](const group& found) { gid = found.gr_gid; }, error);
}

}  // namespace mwl::Utilities
