#include "process.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "failure.h"
#include "foundation/handle.h"

namespace ternctl {

using mwl::Handle;
using mwl::UniqueFd;
using mwl::Diagnostics::Flight;
using mwl::Diagnostics::FlightEvent;
using mwl::Diagnostics::FlightMessage;
using mwl::Diagnostics::LoggedMessage;
using mwl::Diagnostics::RecordedEvent;
using mwl::Diagnostics::RingReader;

namespace {

constexpr std::uint64_t NS_PER_US = 1000;
/// The text of /proc for a descriptor of such a memory.
constexpr std::string_view LINK = "/memfd:tern-flight (deleted)";
/// A process that has more of them wants to keep us busy.
constexpr std::size_t MOST_MEMORIES = 16;

std::string Named(std::uint32_t pid) {
    return "process " + std::to_string(pid);
}

Failure Ended(std::uint32_t pid) {
    return {Cause::NotThere, Named(pid) + " has ended"};
}

/// A small file of the process; empty when it cannot be read.
std::string ReadSmallFile(const UniqueFd& folder, const char* name) {
    const UniqueFd file(openat(folder.Get(), name, O_RDONLY | O_CLOEXEC));
    std::array<char, 4096> content{};
    const ssize_t length = file ? read(file.Get(), content.data(), content.size()) : -1;
    return length > 0 ? std::string(content.data(), static_cast<std::size_t>(length)) : std::string();
}

bool IsRecorders(const UniqueFd& descriptors, const char* name) {
    std::array<char, LINK.size() + 1> target{};
    const ssize_t length = readlinkat(descriptors.Get(), name, target.data(), target.size());
    return length > 0 && std::string_view(target.data(), static_cast<std::size_t>(length)) == LINK;
}

/// For reading. The descriptor may be another one by now: nothing but a file is opened, because a device may
/// do anything then. None when it cannot be opened.
UniqueFd OpenFile(const UniqueFd& descriptors, const char* name, struct stat& status) {
    const UniqueFd found(openat(descriptors.Get(), name, O_PATH | O_CLOEXEC));
    if (!found || fstat(found.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return {};
    }
    return UniqueFd(open(("/proc/self/fd/" + std::to_string(found.Get())).c_str(), O_RDONLY | O_CLOEXEC));
}

}  // namespace

Process::Process(std::uint32_t pid)
    : mPid(pid), mFolder(open(("/proc/" + std::to_string(pid)).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (!mFolder && (errno == ENOENT || errno == ESRCH)) {
        throw Failure(Cause::NotThere, "there is no " + Named(pid));
    }
    if (!mFolder) {
        throw SystemFailure(Named(pid) + " cannot be looked at", errno);
    }
    if (!IsRunning()) {
        throw Ended(pid);
    }
}

bool Process::IsRunning() const {
    const std::string stat = ReadSmallFile(mFolder, "stat");
    // The state stands behind the program's name, which may hold anything.
    const std::size_t end = stat.rfind(") ");
    return end != std::string::npos && end + 2 < stat.size() && stat[end + 2] != 'Z' && stat[end + 2] != 'X';
}

std::uint32_t Process::ReadOwnId() const {
    const std::string status = ReadSmallFile(mFolder, "status");
    constexpr std::string_view KEY = "\nNStgid:";
    const std::size_t begin = status.find(KEY);
    if (begin == std::string::npos) {
        return mPid;
    }
    // One for each namespace, its own last.
    const std::string_view line = std::string_view(status).substr(
        begin + KEY.size(), status.find('\n', begin + 1) - begin - KEY.size());
    const std::string_view last = line.substr(line.find_last_of(" \t") + 1);
    std::uint32_t id = mPid;
    std::from_chars(last.data(), last.data() + last.size(), id);
    return id;
}

Process::Recorder Process::OpenRecorder() const {
    const UniqueFd descriptors(openat(mFolder.Get(), "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const int error = errno;
    if (!descriptors && !IsRunning()) {
        throw Ended(mPid);
    }
    if (!descriptors && (error == EACCES || error == EPERM)) {
        throw Failure("access to " + Named(mPid) + " is denied: root may look into it, and its own user");
    }
    if (!descriptors) {
        throw SystemFailure("the descriptors of " + Named(mPid) + " cannot be looked at", error);
    }
    UniqueFd listed(fcntl(descriptors.Get(), F_DUPFD_CLOEXEC, 0));
    const Handle<DIR, closedir> list(fdopendir(listed.Get()));
    if (list == nullptr) {
        throw SystemFailure("the descriptors of " + Named(mPid) + " cannot be looked at", errno);
    }
    static_cast<void>(listed.Release());  // the list's from now on
    const std::uint32_t ownId = ReadOwnId();
    std::vector<std::pair<dev_t, ino_t>> seen;
    std::optional<Recorder> own;
    std::optional<Flight> foreign;
    std::string unreadable;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): only one thread runs in this program
    while (const dirent* const entry = readdir(list.get())) {
        if (!IsRecorders(descriptors, entry->d_name)) {
            continue;
        }
        struct stat status {};
        UniqueFd memory = OpenFile(descriptors, entry->d_name, status);
        if (!memory) {
            unreadable = "its memory cannot be opened";
            continue;
        }
        // One memory may have several descriptors.
        const std::pair<dev_t, ino_t> identity(status.st_dev, status.st_ino);
        if (std::find(seen.begin(), seen.end(), identity) != seen.end()) {
            continue;
        }
        if (seen.size() == MOST_MEMORIES) {
            break;
        }
        seen.push_back(identity);
        Typed::Outcome<Flight> flight = RingReader::Read(memory.Get());
        if (!flight.IsOk()) {
            unreadable = flight.GetError().GetText();
        } else if (flight->pid != ownId) {
            foreign = *std::move(flight);
        } else if (!own || flight->beganNs >= own->flight.beganNs) {
            own = Recorder{std::move(memory), *std::move(flight)};
        }
    }
    if (own) {
        return *std::move(own);
    }
    if (!IsRunning()) {
        throw Ended(mPid);
    }
    if (!unreadable.empty()) {
        throw Failure("the flight recorder of " + Named(mPid) + " cannot be read: " + unreadable);
    }
    throw Failure(Cause::NoDiagnostics,
                  Named(mPid) + (foreign ? " has no flight recorder of its own, but that of " +
                                               Named(foreign->pid) + " (" + foreign->program + ")"
                                         : " has no flight recorder"));
}

Flight ReadFlight(const UniqueFd& memory, std::uint32_t pid) {
    Typed::Outcome<Flight> flight = RingReader::Read(memory.Get());
    if (!flight.IsOk()) {
        throw Failure("the flight recorder of " + Named(pid) +
                      " cannot be read: " + flight.GetError().GetText());
    }
    return *std::move(flight);
}

std::vector<RecordedEvent> ToEvents(const Flight& flight) {
    std::vector<RecordedEvent> events;
    events.reserve(flight.events.size());
    for (const FlightEvent& event : flight.events) {
        // Unsigned: the numbers of a hostile memory may be anything.
        const auto realtimeNs =
            static_cast<std::int64_t>(event.monotonicNs + static_cast<std::uint64_t>(flight.toRealtimeNs));
        events.push_back({event.sequence,
                          static_cast<std::uint64_t>(std::max<std::int64_t>(realtimeNs, 0)) / NS_PER_US,
                          event.threadId, event.event, event.name, event.value});
    }
    return events;
}

std::vector<LoggedMessage> ToMessages(const Flight& flight) {
    std::vector<LoggedMessage> messages;
    messages.reserve(flight.messages.size());
    for (const FlightMessage& message : flight.messages) {
        messages.push_back({message.realtimeNs / NS_PER_US, message.level, message.text, message.isCut});
    }
    return messages;
}

}  // namespace ternctl
