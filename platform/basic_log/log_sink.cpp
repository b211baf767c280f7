#include "log_sink.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>

#include "escape.h"
#include "local_time.h"
#include "log_socket.h"
#include "patience.h"
#include "standard_error.h"

namespace mwl::Log {

namespace {

constexpr const char* JOURNAL_SOCKET = "/run/systemd/journal/socket";
constexpr const char* SYSLOG_SOCKET = "/dev/log";

/// Messages that the sink did not take and that were not reported yet.
constinit std::atomic<unsigned long> gDropped{0};

/// JOURNAL_STREAM is "device:inode" of the stream that the journal reads; sd_journal_stream_fd(3) describes
/// the rest.
bool IsJournalStream() noexcept {
    const char* stream = getenv("JOURNAL_STREAM");  // NOLINT(concurrency-mt-unsafe): once, at first use
    unsigned long long device = 0;
    unsigned long long inode = 0;
    struct stat status {};
    return stream != nullptr && sscanf(stream, "%llu:%llu", &device, &inode) == 2 &&
           fstat(STDERR_FILENO, &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

/// Puts `prefix` right in front of the text and `suffix` right behind it, then writes all of it in one piece.
bool WriteFramed(const char* prefix, std::size_t prefixLength, const char* suffix, std::size_t suffixLength,
                 char* text, std::size_t length, Patience& patience) noexcept {
    memcpy(text - prefixLength, prefix, prefixLength);
    memcpy(text + length, suffix, suffixLength);
    return WriteToStandardError(text - prefixLength, prefixLength + length + suffixLength, patience);
}

bool WriteToStream(int level, char* text, std::size_t length, Patience& patience) noexcept {
    const char prefix[] = {'<', static_cast<char>('0' + level), '>'};
    return WriteFramed(prefix, sizeof prefix, "\n", 1, text, length, patience);
}

bool WriteToTerminal(int level, char* text, std::size_t length, Patience& patience) noexcept {
    static constexpr const char* NAMES[] = {"emergency", "alert",  "critical", "error",
                                            "warning",   "notice", "info",     "debug"};
    static constexpr const char* COLOURS[] = {"31;1", "31;1", "31;1", "31", "33", "1", "0", "2"};
    const LocalTime time = NowInLocalTime();
    char prefix[FRAME_ROOM - 1];  // less the newline that ends a line which was cut
    const int prefixLength =
        snprintf(prefix, sizeof prefix, "%02d:%02d:%02d.%03d \x1b[%sm%-8s ", time.hour, time.minute,
                 time.second, time.millisecond, COLOURS[level], NAMES[level]);
    return WriteFramed(prefix, static_cast<std::size_t>(prefixLength), "\x1b[0m\n", 5, text, length,
                       patience);
}

/// The program's name as log daemons get it: whoever starts a program chooses it, and it must begin neither a
/// field nor a line of its own.
class Identifier {
public:
    Identifier() noexcept
        : mLength(Escape(program_invocation_short_name, strlen(program_invocation_short_name), mText,
                         sizeof mText)) {}
    int Length() const noexcept { return static_cast<int>(mLength); }
    const char* Text() const noexcept { return mText; }

private:
    char mText[200];  // without a zero at the end
    std::size_t mLength;
};

/// A message too large for a datagram goes as a sealed memory file, as the journal's native protocol has it.
Sent SendAsMemoryFile(const iovec* parts, std::size_t count, Patience& patience) noexcept {
    const int file = memfd_create("journal-message", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (file < 0) {
        return Sent::Refused;
    }
    std::size_t size = 0;
    for (std::size_t i = 0; i < count; ++i) {
        size += parts[i].iov_len;
    }
    // Memory may end in the middle: the journal would refuse the part, and the message would be lost.
    const bool whole =
        writev(file, parts, static_cast<int>(count)) == static_cast<ssize_t>(size) &&
        fcntl(file, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL) == 0;
    const Sent sent = whole ? SendToLogSocket(JOURNAL_SOCKET, nullptr, 0, file, patience) : Sent::Refused;
    close(file);
    return sent;
}

/// Sends the entry by the journal's native protocol; the message carries its length, because it may hold
/// newlines.
Sent SendToJournal(int level, const char* text, std::size_t length, Patience& patience) noexcept {
    const Identifier identifier;
    char fields[512];
    const int fieldsLength =
        snprintf(fields, sizeof fields, "PRIORITY=%d\nSYSLOG_IDENTIFIER=%.*s\nTID=%ld\nMESSAGE\n", level,
                 identifier.Length(), identifier.Text(), static_cast<long>(gettid()));
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
    constexpr std::size_t COUNT = sizeof parts / sizeof parts[0];
    const Sent sent = SendToLogSocket(JOURNAL_SOCKET, parts, COUNT, -1, patience);
    return sent == Sent::TooLarge ? SendAsMemoryFile(parts, COUNT, patience) : sent;
}

/// Sends the line as syslog(3) does, whose lock a forked child could find held for ever.
Sent SendToSyslog(int level, const char* text, std::size_t length, Patience& patience) noexcept {
    static constexpr const char* MONTHS[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const LocalTime time = NowInLocalTime();
    const Identifier identifier;
    char header[256];
    const int headerLength = snprintf(
        header, sizeof header, "<%d>%s %2d %02d:%02d:%02d %.*s: ", LOG_USER | level, MONTHS[time.month],
        time.day, time.hour, time.minute, time.second, identifier.Length(), identifier.Text());
    iovec parts[] = {{header, static_cast<std::size_t>(headerLength)}, {const_cast<char*>(text), length}};
    constexpr std::size_t COUNT = sizeof parts / sizeof parts[0];
    const Sent sent = SendToLogSocket(SYSLOG_SOCKET, parts, COUNT, -1, patience);
    return sent == Sent::Stream ? SendToLogStream(SYSLOG_SOCKET, parts, COUNT, patience) : sent;
}

/// Writes the text, which is escaped, as a line.
bool WriteLine(Sink sink, int level, char* text, std::size_t length, Patience& patience) noexcept {
    if (sink == Sink::Syslog) {
        const Sent sent = SendToSyslog(level, text, length, patience);
        if (sent == Sent::Yes || sent == Sent::NotInTime) {
            return sent == Sent::Yes;
        }
    }
    return sink == Sink::Terminal ? WriteToTerminal(level, text, length, patience)
                                  : WriteToStream(level, text, length, patience);
}

/// Escapes the text into room of its own first. Not inlined: that room would be every message's.
[[gnu::noinline]] bool WriteEscaped(Sink sink, int level, const char* text, std::size_t length,
                                    std::size_t escapedLength, Patience& patience) noexcept {
    char stack[FRAME_ROOM + STACK_MESSAGE + FRAME_ROOM];
    char* const heap = escapedLength <= STACK_MESSAGE
                           ? nullptr
                           : static_cast<char*>(malloc(FRAME_ROOM + escapedLength + FRAME_ROOM));
    char* const escaped = (heap != nullptr ? heap : stack) + FRAME_ROOM;
    // Without memory a long message is cut rather than lost.
    const std::size_t room = heap != nullptr ? escapedLength : STACK_MESSAGE;
    const std::size_t written = Escape(text, length, escaped, room);
    const bool taken = WriteLine(sink, level, escaped, written, patience);
    free(heap);
    return taken;
}

/// Returns whether somebody has the message now.
bool Deliver(Sink sink, int level, char* text, std::size_t length, Patience& patience) noexcept {
    if (sink == Sink::Journal) {
        const Sent sent = SendToJournal(level, text, length, patience);
        if (sent == Sent::Yes || sent == Sent::NotInTime) {
            return sent == Sent::Yes;
        }
        // Standard error leads to the journal as well, by a longer way.
    }
    const std::size_t escapedLength = EscapedLength(text, length);
    return escapedLength == length ? WriteLine(sink, level, text, length, patience)
                                   : WriteEscaped(sink, level, text, length, escapedLength, patience);
}

/// Reports how many messages are missing before the next one. Returns false when the sink does not take that
/// either.
bool TellDropped(Sink sink, Patience& patience) noexcept {
    const unsigned long dropped = gDropped.exchange(0);
    if (dropped == 0) {
        return true;  // another thread has reported it
    }
    char line[FRAME_ROOM + 128 + FRAME_ROOM];
    const int length =
        snprintf(line + FRAME_ROOM, 128, "Messages dropped, as the log did not take them: %lu", dropped);
    if (Deliver(sink, LOG_WARNING, line + FRAME_ROOM, static_cast<std::size_t>(length), patience)) {
        return true;
    }
    gDropped.fetch_add(dropped);
    return false;
}

}  // namespace

Sink ChooseSink() noexcept {
    const char* target = getenv("TERN_LOG_TARGET");  // NOLINT(concurrency-mt-unsafe): once, at first use
    if (target != nullptr && strcmp(target, "syslog") == 0) {
        static_cast<void>(NowInLocalTime());  // before there are children
        return Sink::Syslog;
    }
    if (IsJournalStream()) {
        return Sink::Journal;
    }
    if (isatty(STDERR_FILENO) == 1) {
        static_cast<void>(NowInLocalTime());
        return Sink::Terminal;
    }
    return Sink::Stream;
}

void WriteMessage(Sink sink, int level, char* text, std::size_t length) noexcept {
    Patience patience;
    const bool told = gDropped.load(std::memory_order_relaxed) == 0 || TellDropped(sink, patience);
    if (told && Deliver(sink, level, text, length, patience)) {
        Patience::Taken();
    } else {
        gDropped.fetch_add(1);
    }
}

}  // namespace mwl::Log
