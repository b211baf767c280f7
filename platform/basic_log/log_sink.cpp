#include "log_sink.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>

namespace mwl::Log {

namespace {

constexpr const char* JOURNAL_SOCKET = "/run/systemd/journal/socket";

/// Local time's distance from UTC in seconds, taken once: localtime_r(3) takes a lock that a forked child
/// could find held for ever.
long gUtcOffset = 0;

/// JOURNAL_STREAM is "device:inode" of the stream that the journal reads; sd_journal_stream_fd(3) tells the
/// rest.
bool IsJournalStream() noexcept {
    const char* stream = getenv("JOURNAL_STREAM");  // NOLINT(concurrency-mt-unsafe): once, at first use
    unsigned long long device = 0;
    unsigned long long inode = 0;
    struct stat status {};
    return stream != nullptr && sscanf(stream, "%llu:%llu", &device, &inode) == 2 &&
           fstat(STDERR_FILENO, &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

void WriteAll(const char* data, std::size_t size) noexcept {
    while (size > 0) {
        const ssize_t written = write(STDERR_FILENO, data, size);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
}

/// Puts `prefix` right in front of the text and `suffix` right behind it, then writes all of it at once.
void WriteFramed(const char* prefix, std::size_t prefixLength, const char* suffix, std::size_t suffixLength,
                 char* text, std::size_t length) noexcept {
    memcpy(text - prefixLength, prefix, prefixLength);
    memcpy(text + length, suffix, suffixLength);
    WriteAll(text - prefixLength, prefixLength + length + suffixLength);
}

void WriteToStream(int level, char* text, std::size_t length) noexcept {
    const char prefix[] = {'<', static_cast<char>('0' + level), '>'};
    WriteFramed(prefix, sizeof prefix, "\n", 1, text, length);
}

void WriteToTerminal(int level, char* text, std::size_t length) noexcept {
    static constexpr const char* NAMES[] = {"emergency", "alert",  "critical", "error",
                                            "warning",   "notice", "info",     "debug"};
    static constexpr const char* COLOURS[] = {"31;1", "31;1", "31;1", "31", "33", "1", "0", "2"};
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    // In 64 bits up to the remainder: a long of 32 bits does not hold the seconds after January 2038.
    const std::int64_t local = std::int64_t{now.tv_sec} + gUtcOffset;
    const long second = static_cast<long>((local % 86400 + 86400) % 86400);
    char prefix[FRAME_ROOM];
    const int prefixLength =
        snprintf(prefix, sizeof prefix, "%02ld:%02ld:%02ld.%03ld \x1b[%sm%-8s ", second / 3600,
                 second / 60 % 60, second % 60, now.tv_nsec / 1000000, COLOURS[level], NAMES[level]);
    WriteFramed(prefix, static_cast<std::size_t>(prefixLength), "\x1b[0m\n", 5, text, length);
}

/// Sends the datagram, again when a signal came in between.
bool Send(int socket, const msghdr& message) noexcept {
    ssize_t sent = 0;
    do {
        sent = sendmsg(socket, &message, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent >= 0;
}

/// A message too large for a datagram goes as a sealed memory file, as the journal's native protocol has it.
bool SendAsMemoryFile(int socket, const sockaddr_un& address, const iovec* parts,
                      std::size_t count) noexcept {
    const int file = memfd_create("journal-message", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (file < 0) {
        return false;
    }
    std::size_t size = 0;
    for (std::size_t i = 0; i < count; ++i) {
        size += parts[i].iov_len;
    }
    // Memory may end in the middle: the journal would refuse the part, and the message would be lost.
    bool sent = writev(file, parts, static_cast<int>(count)) == static_cast<ssize_t>(size) &&
                fcntl(file, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL) == 0;
    if (sent) {
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof file)] = {};
        msghdr message{};
        message.msg_name = const_cast<sockaddr_un*>(&address);
        message.msg_namelen = sizeof address;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof file);
        memcpy(CMSG_DATA(header), &file, sizeof file);
        sent = Send(socket, message);
    }
    close(file);
    return sent;
}

/// Sends the entry by the journal's native protocol; the message carries its length, as it may hold newlines.
bool SendToJournal(int level, const char* text, std::size_t length) noexcept {
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket < 0) {
        return false;
    }
    char fields[512];
    const int fieldsLength =
        snprintf(fields, sizeof fields, "PRIORITY=%d\nSYSLOG_IDENTIFIER=%.200s\nTID=%ld\nMESSAGE\n", level,
                 program_invocation_short_name, static_cast<long>(gettid()));
    std::uint64_t size = length;
    unsigned char littleEndian[sizeof size];
    for (unsigned char& byte : littleEndian) {
        byte = static_cast<unsigned char>(size & 0xff);
        size >>= 8;
    }
    char newline = '\n';
    iovec parts[] = {{fields, static_cast<std::size_t>(fieldsLength)},
                     {littleEndian, sizeof littleEndian},
                     {const_cast<char*>(text), length},
                     {&newline, 1}};
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, JOURNAL_SOCKET, strlen(JOURNAL_SOCKET) + 1);
    msghdr message{};
    message.msg_name = &address;
    message.msg_namelen = sizeof address;
    message.msg_iov = parts;
    message.msg_iovlen = sizeof parts / sizeof parts[0];
    bool sent = Send(socket, message);
    if (!sent && (errno == EMSGSIZE || errno == ENOBUFS)) {
        sent = SendAsMemoryFile(socket, address, parts, sizeof parts / sizeof parts[0]);
    }
    close(socket);
    return sent;
}

}  // namespace

Sink ChooseSink() noexcept {
    const char* target = getenv("TERN_LOG_TARGET");  // NOLINT(concurrency-mt-unsafe): once, at first use
    if (target != nullptr && strcmp(target, "syslog") == 0) {
        return Sink::Syslog;
    }
    if (IsJournalStream()) {
        return Sink::Journal;
    }
    if (isatty(STDERR_FILENO) == 1) {
        const time_t now = time(nullptr);
        tm local{};
        gUtcOffset = localtime_r(&now, &local) != nullptr ? local.tm_gmtoff : 0;
        return Sink::Terminal;
    }
    return Sink::Stream;
}

void WriteMessage(Sink sink, int level, char* text, std::size_t length) noexcept {
    switch (sink) {
        case Sink::Stream:
            WriteToStream(level, text, length);
            return;
        case Sink::Terminal:
            WriteToTerminal(level, text, length);
            return;
        case Sink::Journal:
            // Standard error leads to the journal as well, by a longer way.
            if (!SendToJournal(level, text, length)) {
                WriteToStream(level, text, length);
            }
            return;
        case Sink::Syslog:
            syslog(level, "%s", text);
            return;
    }
}

}  // namespace mwl::Log
