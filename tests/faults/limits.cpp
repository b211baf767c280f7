#include "limits.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>

#include "support/process_resources.h"
#include "support/wait_until.h"
#include "utilities/private_mounts.h"

namespace tern::test {

namespace {

/// Added to the process's number: no user of the machine has such an id.
constexpr uid_t FIRST_USER = 1000000;

/// Adds a line to one of the system's files, in this process alone.
bool AddLine(const std::string& path, const std::string& store, const std::string& line) {
    std::ifstream file(path);
    const std::string known((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    return CoverFile(path, store, known + line + "\n");
}

/// Has the system know a user of that id, and a group of its name.
bool AddUser(uid_t user, const std::string& folder) {
    const std::string number = std::to_string(user);
    const std::string name = "faults" + number;
    return EnterPrivateMounts() &&
           AddLine("/etc/passwd", folder + "/passwd" + number, name + ":x:" + number + ":0::/:/bin/false") &&
           AddLine("/etc/group", folder + "/group" + number, name + ":x:" + number + ":");
}

/// Threads and signals are counted by user (the real one): this process is the only one of its own. To files
/// and to the bus it is root as before, but without what would exempt it.
bool BecomeAUser(std::string& folder) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct rights[_LINUX_CAPABILITY_U32S_3]{};
    const uid_t user = FIRST_USER + static_cast<uid_t>(getpid());
    if (geteuid() != 0 || syscall(SYS_capget, &header, rights) != 0 || !AddUser(user, folder)) {
        return false;
    }
    constexpr unsigned EXEMPTING = (1U << CAP_SYS_RESOURCE) | (1U << CAP_SYS_ADMIN);
    rights[0].effective &= ~EXEMPTING;
    const auto unchanged = static_cast<uid_t>(-1);
    return setresuid(user, unchanged, unchanged) == 0 && syscall(SYS_capset, &header, rights) == 0 &&
           prctl(PR_SET_PDEATHSIG, SIGKILL) == 0;
}

/// The sanitizers look at memory through a pipe: without descriptors they take good objects for bad ones.
bool NeedNoSanitizer(std::string& /*folder*/) {
#if defined(__SANITIZE_ADDRESS__)
    return false;
#else
    return true;
#endif
}

template <__rlimit_resource RESOURCE>
void SetSoftLimit(rlim_t soft) {
    rlimit limit{};
    getrlimit(RESOURCE, &limit);
    limit.rlim_cur = std::min(soft, limit.rlim_max);
    if (setrlimit(RESOURCE, &limit) != 0) {
        throw std::runtime_error("a limit cannot be set");
    }
}

template <__rlimit_resource RESOURCE>
void LiftLimit() {
    SetSoftLimit<RESOURCE>(RLIM_INFINITY);
}

void TightenThreads(unsigned spare) {
    SetSoftLimit<RLIMIT_NPROC>(CountThreads() + spare);
}

void TightenSignals(unsigned spare) {
    std::ifstream status("/proc/self/status");
    rlim_t used = 0;
    for (std::string line; std::getline(status, line);) {
        static_cast<void>(sscanf(line.c_str(), "SigQ: %lu/", &used));
    }
    SetSoftLimit<RLIMIT_SIGPENDING>(used + spare);
}

/// Descriptors are numbered from the lowest free one: the limit is a number.
void TightenDescriptors(unsigned spare) {
    int limit = 0;
    for (unsigned free = 0; free <= spare; ++limit) {
        free += fcntl(limit, F_GETFD) < 0 ? 1 : 0;
    }
    SetSoftLimit<RLIMIT_NOFILE>(static_cast<rlim_t>(limit - 1));
}

/// Thread stacks are the largest pieces that are asked for.
constexpr rlim_t ADDRESSES_PER_SPARE = 8U << 20;

bool HaveAddressesThatCount(std::string& /*folder*/) {
#if defined(__SANITIZE_ADDRESS__)
    return false;  // most of them are the sanitizer's
#else
    return true;
#endif
}

void TightenAddresses(unsigned spare) {
    std::ifstream file("/proc/self/statm");
    rlim_t pages = 0;
    file >> pages;
    SetSoftLimit<RLIMIT_AS>(pages * static_cast<rlim_t>(getpagesize()) + spare * ADDRESSES_PER_SPARE);
}

/// The kernel takes memory from the group's account in pieces of 64 pages for each processor.
constexpr std::uint64_t MEMORY_PER_SPARE = 256U << 10;

/// Kept open, as memory for a stream may not be had.
int gMemoryLimit = -1;

/// The control group of this process that counts memory; empty where the first version of these is not to be
/// had.
std::string MemoryGroup() {
    std::ifstream groups("/proc/self/cgroup");
    for (std::string line; std::getline(groups, line);) {
        const std::size_t at = line.find(":memory:");
        if (at != std::string::npos) {
            return "/sys/fs/cgroup/memory" + line.substr(at + sizeof ":memory:" - 1);
        }
    }
    return {};
}

/// Of a process of the sweep, below the group of the sweep itself, which asks for it.
std::string MemoryGroupOf(pid_t pid) {
    return MemoryGroup() + "/faults" + std::to_string(pid);
}

bool EnterMemoryGroup(std::string& /*folder*/) {
    const std::string group = MemoryGroupOf(getpid());
    std::error_code failed;
    if (MemoryGroup().empty() || !std::filesystem::create_directory(group, failed)) {
        return false;
    }
    std::ofstream(group + "/cgroup.procs") << getpid() << std::flush;
    gMemoryLimit = open((group + "/memory.limit_in_bytes").c_str(), O_WRONLY | O_CLOEXEC);
    return gMemoryLimit >= 0 && MemoryGroup() == group;
}

void SetMemoryLimit(const std::string& bytes) {
    if (pwrite(gMemoryLimit, bytes.data(), bytes.size(), 0) < 0) {
        throw std::runtime_error("the memory's limit cannot be set");
    }
}

void TightenMemory(unsigned spare) {
    std::ifstream file(MemoryGroup() + "/memory.usage_in_bytes");
    std::uint64_t used = 0;
    file >> used;
    // Whole pages, and never less than is in use: there is nothing to give back.
    SetMemoryLimit(std::to_string((used / MEMORY_PER_SPARE + 1 + spare) * MEMORY_PER_SPARE));
}

void LiftMemory() {
    SetMemoryLimit("-1");
}

bool HasBeenKilledForMemory(pid_t pid) {
    const std::string group = MemoryGroupOf(pid);
    std::stringstream control;
    control << std::ifstream(group + "/memory.oom_control").rdbuf();
    const std::size_t kills = control.str().find("oom_kill ");
    const bool hasKilled = kills != std::string::npos &&
                           control.str().compare(kills, sizeof "oom_kill 0" - 1, "oom_kill 0") != 0;
    // Programs that it had started.
    WaitUntil([&] {
        std::ifstream members(group + "/cgroup.procs");
        for (pid_t member = 0; members >> member;) {
            kill(member, SIGKILL);
        }
        return rmdir(group.c_str()) == 0 || errno == ENOENT;
    });
    return hasKilled;
}

/// What else the file system holds; kept open.
int gFiller = -1;

bool MountSmall(std::string& folder) {
    folder += "/small" + std::to_string(getpid());
    std::error_code failed;
    std::filesystem::create_directory(folder, failed);
    if (failed || !EnterPrivateMounts() || mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=1m") != 0) {
        return false;
    }
    gFiller = open((folder + "/filler").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    return gFiller >= 0;
}

void FillUp(unsigned spare) {
    struct statfs space {};
    if (fstatfs(gFiller, &space) != 0 || space.f_bavail <= spare ||
        posix_fallocate(gFiller, 0, static_cast<off_t>(space.f_bavail - spare) * space.f_bsize) != 0) {
        throw std::runtime_error("the file system cannot be filled");
    }
}

void Empty() {
    if (ftruncate(gFiller, 0) != 0) {
        throw std::runtime_error("the file system cannot be emptied");
    }
}

const Limit* gLimit = nullptr;
unsigned gSpare = 0;
bool gIsOn = false;
/// Of the rlimits, when the test does something itself.
rlimit gDescriptors{};

}  // namespace

const std::vector<Limit>& Limits() {
    static const std::vector<Limit> limits = {
        {"RLIMIT_NPROC", BecomeAUser, TightenThreads, LiftLimit<RLIMIT_NPROC>},
        {"RLIMIT_SIGPENDING", BecomeAUser, TightenSignals, LiftLimit<RLIMIT_SIGPENDING>},
        {"RLIMIT_NOFILE", NeedNoSanitizer, TightenDescriptors, LiftLimit<RLIMIT_NOFILE>},
        {"RLIMIT_AS", HaveAddressesThatCount, TightenAddresses, LiftLimit<RLIMIT_AS>},
        {"memory", EnterMemoryGroup, TightenMemory, LiftMemory, HasBeenKilledForMemory},
        {"tmpfs", MountSmall, FillUp, Empty},
    };
    return limits;
}

void Shortage::Arm(const Limit* limit, unsigned spare) {
    gLimit = limit;
    gSpare = spare;
}

void Shortage::Switch(bool on) {
    if (gLimit != nullptr && on != gIsOn) {
        gIsOn = on;
        if (on) {
            gLimit->tighten(gSpare);
        } else {
            gLimit->lift();
        }
    }
}

Shortage::Aside::Aside() {
    if (gIsOn) {
        getrlimit(RLIMIT_NOFILE, &gDescriptors);
        LiftLimit<RLIMIT_NOFILE>();
    }
}

Shortage::Aside::~Aside() {
    if (gIsOn) {
        static_cast<void>(setrlimit(RLIMIT_NOFILE, &gDescriptors));
    }
}

}  // namespace tern::test
