#include "diagnostics/descriptor_store.h"

#include <fcntl.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <string_view>

namespace mwl::Diagnostics {

namespace {

constexpr std::string_view NAME = "tern-flight";

constinit std::atomic<bool> gHasStored{false};

/// Whether it is a memfd, as all are that are handed on. The application may have closed it before the
/// recorder is begun: the number is nobody's then, or of anything else.
bool IsMemory(int fd) {
    return fcntl(fd, F_GET_SEALS) >= 0;
}

}  // namespace

std::vector<int> DescriptorStore::FindHandedOn() {
    std::vector<int> found;
    char** names = nullptr;
    const int count = sd_listen_fds_with_names(0, &names);
    for (int i = 0; i < count; ++i) {
        const int fd = SD_LISTEN_FDS_START + i;
        if (names[i] == NAME && IsMemory(fd)) {
            found.push_back(fd);
        }
        free(names[i]);
    }
    free(static_cast<void*>(names));
    return found;
}

int DescriptorStore::Replace(int handedOn, int fd) {
    return dup3(fd, handedOn, O_CLOEXEC) < 0 ? errno : 0;
}

int DescriptorStore::Store(int fd) {
    // The former one first, as the store may have room for one only.
    int r = sd_notify(0, "FDSTOREREMOVE=1\nFDNAME=tern-flight");
    if (r > 0) {
        r = sd_pid_notify_with_fds(0, 0, "FDSTORE=1\nFDNAME=tern-flight", &fd, 1);
    }
    gHasStored = r > 0;
    return r;
}

bool DescriptorStore::HasStored() noexcept {
    return gHasStored;
}

}  // namespace mwl::Diagnostics
