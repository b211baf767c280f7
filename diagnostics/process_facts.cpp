#include "diagnostics/process_facts.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <ctime>
#include <string_view>

#include "diagnostics/clean_text.h"
#include "diagnostics/ticks.h"
#include "foundation/handle.h"
#include "foundation/unique_fd.h"

namespace mwl::Diagnostics {

namespace {

/// A small file of /proc; empty when it cannot be read.
std::string ReadSmallFile(const std::string& path) {
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 4096> content{};
    const ssize_t length = file ? read(file.Get(), content.data(), content.size()) : -1;
    return length > 0 ? std::string(content.data(), static_cast<std::size_t>(length)) : std::string();
}

std::uint64_t ParseNumber(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
    std::uint64_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

/// The number behind "Name:" in /proc/self/status; 0 when it is not there.
std::uint64_t FindNumber(std::string_view status, std::string_view name) {
    const std::size_t at = status.find("\n" + std::string(name) + ":");
    return at == std::string_view::npos ? 0 : ParseNumber(status.substr(at + name.size() + 2));
}

/// What stands behind the program's name in /proc/.../stat, from the state on; the name may hold anything.
std::string_view BehindName(std::string_view stat) {
    const std::size_t end = stat.rfind(") ");
    return end == std::string_view::npos ? std::string_view() : stat.substr(end + 2);
}

}  // namespace

std::uint64_t ReadProcessUptimeNs() {
    const std::string stat = ReadSmallFile("/proc/self/stat");
    std::string_view fields = BehindName(stat);
    // The state is field 3, the start field 22.
    for (int field = 3; field < 22 && !fields.empty(); ++field) {
        const std::size_t end = fields.find(' ');
        fields.remove_prefix(end == std::string_view::npos ? fields.size() : end + 1);
    }
    const auto ticksPerSecond = static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
    const std::uint64_t sinceBoot = ParseNumber(fields) * (1000000000U / ticksPerSecond);
    const std::uint64_t uptime = NanosecondsOf(CLOCK_BOOTTIME);
    return fields.empty() || sinceBoot > uptime ? 0 : uptime - sinceBoot;
}

std::uint64_t ReadProcessStartedNs() {
    const std::uint64_t uptime = ReadProcessUptimeNs();
    const std::uint64_t now = NanosecondsOf(CLOCK_REALTIME);
    return uptime == 0 || uptime > now ? 0 : now - uptime;
}

std::string ReadBootId() {
    const std::string id = ReadSmallFile("/proc/sys/kernel/random/boot_id");
    return id.substr(0, id.find('\n'));
}

std::string ReadProgram() {
    return program_invocation_short_name;
}

std::uint64_t ReadWatchdogNs() {
    std::uint64_t microseconds = 0;
    return sd_watchdog_enabled(0, &microseconds) > 0 ? microseconds * 1000 : 0;
}

ProcessSizes ReadProcessSizes() {
    const std::string status = ReadSmallFile("/proc/self/status");
    constexpr std::uint64_t KIBIBYTE = 1024;
    return {FindNumber(status, "VmRSS") * KIBIBYTE, FindNumber(status, "VmHWM") * KIBIBYTE,
            static_cast<std::uint32_t>(FindNumber(status, "Threads"))};
}

std::uint32_t CountDescriptors() {
    const Handle<DIR, closedir> folder(opendir("/proc/self/fd"));
    if (folder == nullptr && errno == EMFILE) {
        rlimit limit{};
        static_cast<void>(getrlimit(RLIMIT_NOFILE, &limit));  // cannot fail with valid arguments
        return static_cast<std::uint32_t>(std::min<rlim_t>(limit.rlim_cur, UINT32_MAX));
    }
    std::uint32_t count = 0;
    while (folder != nullptr) {
        const dirent* const entry =
            readdir(folder.get());  // NOLINT(concurrency-mt-unsafe): a folder of our own
        if (entry == nullptr) {
            break;
        }
        count += entry->d_name[0] != '.' ? 1U : 0U;
    }
    return count > 0 ? count - 1 : 0;
}

ThreadFacts ReadThreadFacts(std::int32_t threadId) {
    ThreadFacts facts;
    if (threadId <= 0) {
        return facts;
    }
    errno = 0;
    const std::string stat = ReadSmallFile("/proc/self/task/" + std::to_string(threadId) + "/stat");
    if (stat.empty() && errno != ENOENT && errno != ESRCH) {
        facts.state = '?';
    }
    const std::string_view behind = BehindName(stat);
    const std::size_t begin = stat.find('(');
    if (!behind.empty() && begin != std::string::npos) {
        facts.state = behind.front();
        facts.name = CleanText(std::string_view(stat).substr(begin + 1, stat.rfind(") ") - begin - 1));
    }
    return facts;
}

}  // namespace mwl::Diagnostics
