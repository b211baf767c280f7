#include <tern-basic-log/root_logger.h>

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>

#include "log_level.h"
#include "log_sink.h"
#include "observer.h"

namespace mwl::Log {

namespace {

constexpr unsigned char DEFAULT_LEVEL = static_cast<unsigned char>(TernLogLevel::Info);

// Plain data with static storage: still there when a message comes after the instance's destructor.
unsigned char gLevel = DEFAULT_LEVEL;
Sink gSink = Sink::Stream;

__attribute__((format(printf, 2, 0))) void Write(TernLogLevel level, const char* format,
                                                 va_list arguments) noexcept {
    const int priority = std::clamp(static_cast<int>(level), 0, 7);
    char stack[FRAME_ROOM + STACK_MESSAGE + FRAME_ROOM];
    va_list again;
    va_copy(again, arguments);
    const int needed = vsnprintf(stack + FRAME_ROOM, STACK_MESSAGE, format, arguments);
    if (needed >= 0) {
        const std::size_t length = static_cast<std::size_t>(needed);
        char* const heap =
            length < STACK_MESSAGE ? nullptr : static_cast<char*>(malloc(length + 1 + 2 * FRAME_ROOM));
        if (heap != nullptr && vsnprintf(heap + FRAME_ROOM, length + 1, format, again) == needed) {
            Observe(level, heap + FRAME_ROOM, length);
            WriteMessage(gSink, priority, heap + FRAME_ROOM, length);
        } else {
            // Without memory a long message is cut rather than lost.
            const std::size_t kept = std::min(length, STACK_MESSAGE - 1);
            Observe(level, stack + FRAME_ROOM, kept);
            WriteMessage(gSink, priority, stack + FRAME_ROOM, kept);
        }
        free(heap);
    }
    va_end(again);
}

}  // namespace

RootLogger::RootLogger() : mLevel(&gLevel), mIdentifier(program_invocation_short_name) {
    // The first message may be about errno: looking around must not change it.
    const int savedErrno = errno;
    gSink = ChooseSink();
    const char* text = getenv("TERN_LOG_LEVEL");  // NOLINT(concurrency-mt-unsafe): once, at first use
    if (!ParseLogLevel(text, DEFAULT_LEVEL, gLevel)) {
        Print(TernLogLevel::Warning,
              "TERN_LOG_LEVEL is '%s', neither 0 to 7 nor the name of a level; using %d", text,
              static_cast<int>(DEFAULT_LEVEL));
    }
    errno = savedErrno;
}

void RootLogger::Print(TernLogLevel level, const char* format, ...) const {
    const int savedErrno = errno;
    va_list arguments;
    va_start(arguments, format);
    Write(level, format, arguments);
    va_end(arguments);
    errno = savedErrno;
}

}  // namespace mwl::Log
