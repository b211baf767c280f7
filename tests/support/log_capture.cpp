#include "log_capture.h"

#include <dlfcn.h>
#include <pthread.h>
#include <tern-basic-log/root_logger.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <ostream>

#include "log_recorder.h"
#include "wait_until.h"

namespace tern::test {

namespace {

struct Sink {
    std::mutex mutex;
    bool active = false;
    int forwardFd = -1;
    std::vector<LogEntry> entries;
};

Sink& GetSink() {
    static Sink* const sink = new Sink;  // never destroyed: late threads may still log
    return *sink;
}

__attribute__((format(printf, 1, 0))) std::string Format(const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(static_cast<std::size_t>(std::max(length, 0)), '\0');
    vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

LogEntry Parse(int level, const char* format, const std::string& whole, va_list arguments) {
    static constexpr char PREFIX[] = "[%lu][%s]";
    if (strncmp(format, PREFIX, sizeof PREFIX - 1) != 0) {
        return {level, "MALFORMED", whole};
    }
    va_list again;
    va_copy(again, arguments);
    const unsigned long thread = va_arg(again, unsigned long);
    const std::string logger = va_arg(again, const char*);
    va_end(again);
    std::string prefix = "[";
    prefix.append(std::to_string(thread)).append("][").append(logger).append("]");
    prefix.append(level == 7 ? "[trace] " : " ");
    const bool wellFormed = thread == static_cast<unsigned long>(pthread_self()) &&
                            whole.starts_with(prefix) &&
                            (level == 7 || !whole.substr(prefix.size()).starts_with("[trace]"));
    return wellFormed ? LogEntry{level, logger, whole.substr(prefix.size())}
                      : LogEntry{level, "MALFORMED", whole};
}

void Append(std::string& bytes, const std::string& field) {
    const std::size_t size = field.size();
    bytes.append(reinterpret_cast<const char*>(&size), sizeof size);
    bytes += field;
}

void Forward(int fd, const LogEntry& entry) {
    std::string bytes;
    Append(bytes, std::to_string(entry.level));
    Append(bytes, entry.logger);
    Append(bytes, entry.text);
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t written = write(fd, bytes.data() + done, bytes.size() - done);
        if (written < 0 && errno != EINTR) {
            return;
        }
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
}

constinit std::atomic<LogRecorder> gRecorder{nullptr};

__attribute__((format(printf, 3, 0))) void Take(const mwl::Log::RootLogger& logger, int level,
                                                const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const std::string whole = Format(format, again);
    va_end(again);
    Sink& sink = GetSink();
    std::unique_lock lock(sink.mutex);
    if (!sink.active) {
        lock.unlock();
        // Nobody captures: the library's own Print takes over.
        using Print = void (*)(const mwl::Log::RootLogger*, TernLogLevel, const char*, ...);
        static const auto print =
            reinterpret_cast<Print>(dlsym(RTLD_NEXT, "_ZNK3mwl3Log10RootLogger5PrintE12TernLogLevelPKcz"));
        print(&logger, static_cast<TernLogLevel>(level), "%s", whole.c_str());
        return;
    }
    LogEntry entry = Parse(level, format, whole, arguments);
    if (const LogRecorder recorder = gRecorder) {
        recorder(level, entry.logger, format);
    }
    if (sink.forwardFd >= 0) {
        Forward(sink.forwardFd, entry);
    }
    sink.entries.push_back(std::move(entry));
}

}  // namespace

void PrintTo(const LogEntry& entry, std::ostream* stream) {
    *stream << "<" << entry.level << ">[" << entry.logger << "] \"" << entry.text << "\"";
}

LogEntry Critical(std::string logger, std::string text) {
    return {2, std::move(logger), std::move(text)};
}
LogEntry Error(std::string logger, std::string text) {
    return {3, std::move(logger), std::move(text)};
}
LogEntry Warning(std::string logger, std::string text) {
    return {4, std::move(logger), std::move(text)};
}
LogEntry Notice(std::string logger, std::string text) {
    return {5, std::move(logger), std::move(text)};
}
LogEntry Info(std::string logger, std::string text) {
    return {6, std::move(logger), std::move(text)};
}
LogEntry Trace(std::string logger, std::string text) {
    return {7, std::move(logger), std::move(text)};
}

int SetLogThreshold(int threshold) {
    // The instance's first data member points to the threshold byte.
    auto* const level = *reinterpret_cast<unsigned char**>(&mwl::Log::RootLogger::GetInstance());
    return __atomic_exchange_n(level, static_cast<unsigned char>(threshold), __ATOMIC_RELAXED);
}

namespace {
int gFormerThreshold = 6;
}

LogCapture::LogCapture(int threshold) {
    Sink& sink = GetSink();
    const std::lock_guard lock(sink.mutex);
    sink.active = true;
    sink.entries.clear();
    gFormerThreshold = SetLogThreshold(threshold);
}

LogCapture::~LogCapture() {
    Sink& sink = GetSink();
    const std::lock_guard lock(sink.mutex);
    sink.active = sink.forwardFd >= 0;
    sink.entries.clear();
    SetLogThreshold(gFormerThreshold);
}

std::vector<LogEntry> LogCapture::Entries() const {
    Sink& sink = GetSink();
    const std::lock_guard lock(sink.mutex);
    return sink.entries;
}

std::vector<LogEntry> LogCapture::Entries(const std::string& logger) const {
    std::vector<LogEntry> entries = Entries();
    std::erase_if(entries, [&](const LogEntry& entry) { return entry.logger != logger; });
    return entries;
}

std::size_t LogCapture::Count(const LogEntry& entry) const {
    const std::vector<LogEntry> entries = Entries();
    return static_cast<std::size_t>(std::count(entries.begin(), entries.end(), entry));
}

bool LogCapture::WaitFor(const LogEntry& entry) const {
    return WaitUntil([&] { return Contains(entry); });
}

void LogCapture::Clear() {
    Sink& sink = GetSink();
    const std::lock_guard lock(sink.mutex);
    sink.entries.clear();
}

void SetLogRecorder(LogRecorder recorder) {
    gRecorder = recorder;
}

void ForwardLogTo(int fd) {
    Sink& sink = GetSink();
    const std::lock_guard lock(sink.mutex);
    sink.active = true;
    sink.forwardFd = fd;
    SetLogThreshold(7);
}

std::vector<LogEntry> ParseForwardedLog(const std::string& bytes) {
    std::vector<LogEntry> entries;
    std::size_t at = 0;
    const auto take = [&](std::string& field) {
        std::size_t size = 0;
        if (bytes.size() - at < sizeof size) {
            return false;
        }
        memcpy(&size, bytes.data() + at, sizeof size);
        if (bytes.size() - at - sizeof size < size) {
            return false;
        }
        field = bytes.substr(at + sizeof size, size);
        at += sizeof size + size;
        return true;
    };
    std::string level;
    LogEntry entry;
    while (take(level) && take(entry.logger) && take(entry.text)) {
        entry.level = std::stoi(level);
        entries.push_back(entry);
    }
    return entries;
}

}  // namespace tern::test

namespace mwl::Log {

// The executable's definition comes before the shared library's, for the framework's calls too.
void RootLogger::Print(TernLogLevel level, const char* format, ...) const {
    const int savedErrno = errno;
    va_list arguments;
    va_start(arguments, format);
    tern::test::Take(*this, static_cast<int>(level), format, arguments);
    va_end(arguments);
    errno = savedErrno;
}

}  // namespace mwl::Log
