#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <vector>

namespace tern::test {

/// One message as the logger was given it.
struct LogEntry {
    /// As in syslog(3), 2 to 7.
    int level = 0;
    std::string logger;  ///< from the "[%lu][%s]" prefix
    std::string text;  ///< what follows the prefix and its blank; for trace messages what follows "[trace] "

    /// Level, logger and text are the same.
    friend bool operator==(const LogEntry& a, const LogEntry& b) = default;
};

/// Prints level, logger name and quoted text, for gtest's messages.
void PrintTo(const LogEntry& entry, std::ostream* stream);

/// Shorthand for expected messages. A trace message is a debug message whose prefix ends in "[trace]".
LogEntry Critical(std::string logger, std::string text);
LogEntry Error(std::string logger, std::string text);
LogEntry Warning(std::string logger, std::string text);
LogEntry Notice(std::string logger, std::string text);
LogEntry Info(std::string logger, std::string text);
LogEntry Trace(std::string logger, std::string text);

/// Takes every message of the process while it lives, in order, from all threads, by standing in for
/// RootLogger::Print in the test program; nothing reaches standard error meanwhile. Sets the threshold (7
/// writes everything) and restores it at the end. Each message's prefix is checked: well formed, the calling
/// thread's id,
/// "[trace]" on debug level and nowhere else; a message that breaks this is kept with logger "MALFORMED".
///
/// One at a time; create and destroy it on the test's main thread. All other operations are thread-safe.
class LogCapture {
public:
    /// Begins to take messages up to this level.
    explicit LogCapture(int threshold = 7);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// All entries so far.
    std::vector<LogEntry> Entries() const;
    /// The entries of one logger name only.
    std::vector<LogEntry> Entries(const std::string& logger) const;
    /// How many such entries there are.
    std::size_t Count(const LogEntry& entry) const;
    /// Whether there is such an entry.
    bool Contains(const LogEntry& entry) const { return Count(entry) > 0; }
    /// Waits, generously, until the entry has been logged; false when it never came.
    bool WaitFor(const LogEntry& entry) const;
    /// Forgets what has been taken.
    void Clear();
};

/// Sets the logger's threshold directly, as a device maker's configuration would. Returns the former one.
int SetLogThreshold(int threshold);

/// In a forked child: sends every captured message to `fd`, for `ParseForwardedLog` at the other end.
void ForwardLogTo(int fd);
/// Parses what ForwardLogTo wrote.
std::vector<LogEntry> ParseForwardedLog(const std::string& bytes);

}  // namespace tern::test
