#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

/// As a device maker might name the levels.
enum TernLogLevel : int {
    LOG_LEVEL_CRIT = 2,
    LOG_LEVEL_ERR,
    LOG_LEVEL_WARN,
    LOG_LEVEL_NOTE,
    LOG_LEVEL_TELL,
    LOG_LEVEL_ALL
};

namespace mwl::Log {

/// Another logger with no more than every logger has: the instance, the threshold in front, and Print.
class RootLogger {
public:
    static RootLogger& GetInstance() {
        static RootLogger instance;
        return instance;
    }

    __attribute__((format(printf, 3, 4))) void Print(TernLogLevel level, const char* format, ...) const {
        char text[256];
        std::va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(text, sizeof text, format, arguments);
        va_end(arguments);
        printed.emplace_back(static_cast<int>(level), text);
    }

    static inline unsigned char threshold = 6;
    static inline int built = 0;
    static inline std::vector<std::pair<int, std::string>> printed;

private:
    RootLogger() { ++built; }

    [[maybe_unused]] unsigned char* mThreshold = &threshold;
    std::string mIdentifier;
};

}  // namespace mwl::Log
