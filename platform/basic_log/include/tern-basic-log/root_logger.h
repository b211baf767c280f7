#pragma once

#include <string>

/// Severity of a message, numbered as in syslog(3).
enum class TernLogLevel : int { Critical = 2, Error, Warning, Notice, Info, Debug };

namespace mwl::Log {

/// The process's one logger: a threshold and a `Print`.
///
/// The threshold comes from the environment variable TERN_LOG_LEVEL, a number 0 to 7 or a name (critical,
/// error, warning, notice, info, debug) in any case, read once at first use; unset or empty means 6 (info). A
/// message is written when the threshold is not below its level.
///
/// Each message is one write to standard error followed by a newline: behind `<N>` (its level) when standard
/// error is a file or pipe, behind time and coloured level on a terminal, through the journal's native
/// protocol when standard error is the journal (JOURNAL_STREAM), and to the system log's socket, /dev/log, as
/// syslog(3) does, with TERN_LOG_TARGET=syslog. The choice is made once, at first use. Where the journal's or
/// the system log's socket refuses, standard error is taken.
///
/// In all forms but the journal's, control bytes and what is no UTF-8 are escaped as `\n`, `\t` or `\xHH`
/// (two capital digits), so that no text that came from elsewhere begins a line of its own or commands a
/// terminal. A backslash stays as it is.
///
/// A sink that takes nothing (a journal that does not read, a full pipe, a terminal held by Ctrl-S) is waited
/// for, a second for one message; then that message is dropped, and so are further ones, immediately, until
/// the sink takes some again. A warning, "Messages dropped, as the log did not take them: N", then comes
/// before the next message. Messages that cannot be written for another reason (a full disk) are counted
/// likewise. A reader of standard error that has gone does not end the process: where SIGPIPE has its default
/// action and standard error is a pipe, the first message gives it a handler that does nothing.
///
/// Loading this library takes those of the descriptors 0, 1 and 2 that are closed, so that messages never go
/// into a file or pipe that the process opens later: reading from 0 and writing to 1 and 2 fails with EBADF
/// as before. A descriptor that is put there afterwards with dup2(2) is used.
///
/// Thread-safe without locks, in a forked child too, and usable until the very end of the process, after
/// static destructors.
class __attribute__((visibility("default"))) RootLogger {
public:
    /// The one instance, built on first use.
    static RootLogger& GetInstance() {
        static RootLogger instance;
        return instance;
    }

    RootLogger(const RootLogger&) = delete;
    RootLogger& operator=(const RootLogger&) = delete;

    /// The current threshold; a plain one-byte read.
    unsigned char GetLevel() const noexcept { return __atomic_load_n(mLevel, __ATOMIC_RELAXED); }

    /// Formats as printf(3) and writes the message, whatever the threshold is. Messages of less than 4 KiB
    /// take no memory and no lock; longer ones arrive whole, or cut to that where memory is short. `errno` is
    /// preserved. Blocks for a second at most, see above. Marked cold so that a caller's other paths are laid
    /// out first.
    void Print(TernLogLevel level, const char* format, ...) const __attribute__((cold, format(printf, 3, 4)));

private:
    RootLogger();
    ~RootLogger() {}  // NOLINT(modernize-use-equals-default): inline by contract, releases mIdentifier

    unsigned char* mLevel;  ///< stays first: it is what callers read before every message
    std::string mIdentifier;
};

}  // namespace mwl::Log
