#include "private_mounts.h"

#include <sched.h>
#include <sys/mount.h>

#include <fstream>

#include "support/child.h"

namespace tern::test {

bool CanMountPrivately() {
    static const bool can = RunInChild([] { return EnterPrivateMounts() ? 0 : 1; }).exitCode == 0;
    return can;
}

bool EnterPrivateMounts() {
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

bool CoverFile(const std::string& path, const std::string& store, const std::string& content) {
    std::ofstream(store) << content;
    return mount(store.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

}  // namespace tern::test
