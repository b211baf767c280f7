#pragma once

// Look-ups of users and groups under the test's control. Include it in the one source of a test program.

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdio>

#include "support/interpose.h"

TERN_INTERPOSE(int, getpwnam_r,
               (const char* name, struct passwd* entry, char* buffer, size_t size, struct passwd** result),
               (name, entry, buffer, size, result))
TERN_INTERPOSE(int, getgrnam_r,
               (const char* name, struct group* entry, char* buffer, size_t size, struct group** result),
               (name, entry, buffer, size, result))
TERN_INTERPOSE(int, getpwuid_r,
               (uid_t uid, struct passwd* entry, char* buffer, size_t size, struct passwd** result),
               (uid, entry, buffer, size, result))

namespace tern::test {

/// The system's own look-ups again, once it is destroyed.
class NameLookups {
public:
    /// From now on every user and group name, and the own number, is this process's own.
    void KnowEveryName() {
        fault_getpwnam_r.Replace(
            [](const char*, struct passwd* entry, char*, size_t, struct passwd** result) {
                entry->pw_uid = getuid();
                *result = entry;
                return 0;
            },
            MANY);
        fault_getgrnam_r.Replace(
            [](const char*, struct group* entry, char*, size_t, struct group** result) {
                entry->gr_gid = getgid();
                *result = entry;
                return 0;
            },
            MANY);
        fault_getpwuid_r.Replace(
            [](uid_t, struct passwd* entry, char* buffer, size_t size, struct passwd** result) {
                snprintf(buffer, size, "self");
                entry->pw_name = buffer;
                *result = entry;
                return 0;
            },
            MANY);
    }

private:
    /// More calls than any test makes.
    static constexpr int MANY = 100000;

    const FaultScope<int(const char*, struct passwd*, char*, size_t, struct passwd**)> mUsers{
        fault_getpwnam_r};
    const FaultScope<int(const char*, struct group*, char*, size_t, struct group**)> mGroups{
        fault_getgrnam_r};
    const FaultScope<int(uid_t, struct passwd*, char*, size_t, struct passwd**)> mNumbers{fault_getpwuid_r};
};

}  // namespace tern::test
