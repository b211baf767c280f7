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
/// Each message is one write(2) to standard error followed by a newline: behind `<N>` (its level) when
/// standard error is a file or pipe, behind time and coloured level on a terminal, through the journal's
/// native protocol when standard error is the journal (JOURNAL_STREAM), and to syslog(3) with
/// TERN_LOG_TARGET=syslog. The choice is made once, at first use.
///
/// Thread-safe, in a forked child too, and usable until the very end of the process, after static
/// destructors.
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
    /// preserved. A message that cannot be written is lost: there is nobody left to tell. Marked cold so that
    /// a caller's other paths are laid out first.
    void Print(TernLogLevel level, const char* format, ...) const __attribute__((cold, format(printf, 3, 4)));

private:
    RootLogger();
    ~RootLogger() {}  // NOLINT(modernize-use-equals-default): inline by contract, releases mIdentifier

    unsigned char* mLevel;  ///< stays first: it is what callers read before every message
    std::string mIdentifier;
};

}  // namespace mwl::Log
