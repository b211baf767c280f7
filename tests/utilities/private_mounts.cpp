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

bool CoverWithSmallDisk(const std::string& folder, int kibibytes) {
    const std::string options = "size=" + std::to_string(kibibytes) + "k";
    return mount("tmpfs", folder.c_str(), "tmpfs", 0, options.c_str()) == 0;
}

bool ShowIn(const std::string& place, const std::string& folder) {
    return mount(folder.c_str(), place.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

}  // namespace tern::test
