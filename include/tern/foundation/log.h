#pragma once

/// The framework's log macros: TERN_LOG_ERROR(loggerName, "format", arguments...).
///
/// `loggerName` is a std::string, the format a string literal without the common prefix; the prefix "[thread
/// id][logger name] " is put in front here, for TERN_LOG_TRACE followed by "[trace]". Below the threshold a
/// call costs one byte read and a branch: the arguments are not evaluated. The compiler checks format and
/// arguments. Messages carry no newline at their end. `errno` is preserved. Any thread may log at any time.
///
///     TERN_LOG_ERROR(mLogger, "Failed to open %s (%d)", path.c_str(), errno);

#include <pthread.h>
#include <tern/foundation/process_logger.h>

#define TERN_LOG_CRITICAL(loggerName, ...) TERN_LOG_WRITE_(2, "", loggerName, __VA_ARGS__)
#define TERN_LOG_ERROR(loggerName, ...) TERN_LOG_WRITE_(3, "", loggerName, __VA_ARGS__)
#define TERN_LOG_WARNING(loggerName, ...) TERN_LOG_WRITE_(4, "", loggerName, __VA_ARGS__)
#define TERN_LOG_NOTICE(loggerName, ...) TERN_LOG_WRITE_(5, "", loggerName, __VA_ARGS__)
#define TERN_LOG_INFO(loggerName, ...) TERN_LOG_WRITE_(6, "", loggerName, __VA_ARGS__)
/// Debug level.
#define TERN_LOG_TRACE(loggerName, ...) TERN_LOG_WRITE_(7, "[trace]", loggerName, __VA_ARGS__)

// The prefix is joined to the literal by the compiler, and its arguments come before the caller's. Without
// __VA_OPT__, which C++17 lacks, a call without and one with arguments need a macro each. Levels are numbers,
// because the names in a device maker's logger are not known.
#define TERN_LOG_WRITE_(level, tag, loggerName, ...)                                               \
    TERN_LOG_PICK_(__VA_ARGS__, TERN_LOG_SOME_, TERN_LOG_SOME_, TERN_LOG_SOME_, TERN_LOG_SOME_,    \
                   TERN_LOG_SOME_, TERN_LOG_SOME_, TERN_LOG_SOME_, TERN_LOG_SOME_, TERN_LOG_SOME_, \
                   TERN_LOG_NONE_, unused)                                                         \
    (level, tag, loggerName, __VA_ARGS__)
#define TERN_LOG_PICK_(a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, macro, ...) macro
#define TERN_LOG_NONE_(level, tag, loggerName, format)                                                    \
    TERN_LOG_IF_(level, ternLogger_.Print(static_cast<::TernLogLevel>(level), "[%lu][%s]" tag " " format, \
                                          static_cast<unsigned long>(pthread_self()), (loggerName).c_str()))
#define TERN_LOG_SOME_(level, tag, loggerName, format, ...)                                                 \
    TERN_LOG_IF_(level, ternLogger_.Print(static_cast<::TernLogLevel>(level), "[%lu][%s]" tag " " format,   \
                                          static_cast<unsigned long>(pthread_self()), (loggerName).c_str(), \
                                          __VA_ARGS__))
#define TERN_LOG_IF_(level, print)                                               \
    do {                                                                         \
        const ::mwl::Log::RootLogger& ternLogger_ = ::mwl::ProcessLogger::Get(); \
        if (::mwl::ProcessLogger::Threshold(ternLogger_) >= (level)) {           \
            print;                                                               \
        }                                                                        \
    } while (false)
