#include "stated.h"

#include <algorithm>
#include <iterator>

namespace tern::test {

namespace {

/// "*" stands for all.
struct Statement {
    const char* outcome;
    const char* scenario;
    const char* function;
    const char* failure;
    const char* reason;
};

constexpr const char* LEFT_ALONE =
    "a program whose run ended early by a failure is neither killed nor waited for, a later run reaps it";
constexpr const char* INPUT_LOST = "input that a program does not take is told at info level";
constexpr const char* END_OF_OUTPUT = "what ends the reading of the output counts as its end";
constexpr const char* SHORT_ENTRY = "an entry shorter than it claims is written with zeros behind it";
constexpr const char* UNKNOWN_ENTRY = "an entry that libzip cannot describe is left out";

constexpr const char* NEXT_STRUCTURE =
    "the walk over the structures ends when the next one cannot be entered";
constexpr const char* CUT_MESSAGE = "without memory a long message is cut";

constexpr const char* PASSED_C =
    "what sd-bus and sd-event hold when an exception passes through them is lost";

constexpr const char* DEFERRED = "what is deferred in a loop that runs is always switched on";

constexpr const char* EXPIRY_DROPPED = "the C library loses memory with each expiry that it drops";

constexpr Statement STATEMENTS[] = {
    {"SILENT", "command-with-input", "write", "EIO", INPUT_LOST},
    {"SILENT", "command-with-input", "write", "EPIPE", INPUT_LOST},
    {"SILENT", "command-with-input", "write", "ENOSPC", INPUT_LOST},
    {"SILENT", "command-with-input", "read", "nothing", END_OF_OUTPUT},
    {"SILENT", "command-with-input", "read", "EAGAIN", END_OF_OUTPUT},
    {"LEFTOVER", "command-with-input", "read", "*",
     "a program killed at its time limit is not waited for, a later run reaps it"},
    {"LEFTOVER", "command-with-input", "fdopen", "*", LEFT_ALONE},
    {"LEFTOVER", "command-with-input", "fileno", "*", LEFT_ALONE},
    {"LEFTOVER", "command-with-input", "fcntl", "*", LEFT_ALONE},
    {"LEFTOVER", "command-with-input", "waitpid", "ECHILD", LEFT_ALONE},
    {"LEFTOVER", "command-with-input", "_Znwm", "*", LEFT_ALONE},
    {"LEFTOVER", "command-with-input", "_Znwj", "*", LEFT_ALONE},
    {"LEFTOVER", "command-missing-program", "fdopen", "*", LEFT_ALONE},
    {"LEFTOVER", "command-missing-program", "fileno", "*", LEFT_ALONE},
    {"LEFTOVER", "command-missing-program", "fcntl", "*", LEFT_ALONE},
    {"LEFTOVER", "command-missing-program", "waitpid", "ECHILD", LEFT_ALONE},
    {"SILENT", "single-files", "fwrite", "*", "what becomes of the writing is not looked at"},
    {"SILENT", "single-files", "tmpfs", "*", "what becomes of the writing is not looked at"},
    {"SILENT", "ini-file", "read", "nothing", "an end of the file is an end of the file"},
    {"SILENT", "unzip", "write", "partial", "a short write counts as a success"},
    {"SILENT", "unzip-encrypted", "write", "partial", "a short write counts as a success"},
    {"SILENT", "unzip", "tmpfs", "*", "a short write counts as a success"},
    {"SILENT", "unzip-encrypted", "tmpfs", "*", "a short write counts as a success"},
    {"SILENT", "unzip", "zip_fread", "*", SHORT_ENTRY},
    {"SILENT", "unzip-encrypted", "zip_fread", "*", SHORT_ENTRY},
    {"SILENT", "unzip", "zip_stat_index", "*", UNKNOWN_ENTRY},
    {"SILENT", "unzip-encrypted", "zip_stat_index", "*", UNKNOWN_ENTRY},
    {"SILENT", "message-objects", "sd_bus_message_exit_container", "*", NEXT_STRUCTURE},
    {"SILENT", "message-strings", "sd_bus_message_exit_container", "*", NEXT_STRUCTURE},
    {"SILENT", "message-objects", "sd_bus_message_enter_container", "*", NEXT_STRUCTURE},
    {"SILENT", "message-strings", "sd_bus_message_enter_container", "*", NEXT_STRUCTURE},
    {"SILENT", "service-call", "sd_bus_message_read_basic", "*",
     "an array of strings ends at the first that cannot be read"},
    {"SILENT", "logger", "malloc", "ENOMEM", CUT_MESSAGE},
    {"SILENT", "logger-pipe", "malloc", "ENOMEM", CUT_MESSAGE},
    {"SILENT", "logger-socket", "malloc", "ENOMEM", CUT_MESSAGE},
    {"LEFTOVER", "service-call", "_Znwm", "bad_alloc", PASSED_C},
    {"LEFTOVER", "service-call", "_Znwj", "bad_alloc", PASSED_C},
    {"SILENT", "typed-signals", "sd_event_source_set_enabled", "-ENOMEM", DEFERRED},
    {"SILENT", "typed-period", "sd_event_source_set_enabled", "-ENOMEM", DEFERRED},
    {"SILENT", "typed-objects", "sd_event_source_set_enabled", "-ENOMEM", DEFERRED},
    {"VIOLATED", "typed-objects", "sd_event_source_set_enabled", "-ENOMEM", DEFERRED},
    {"LEFTOVER", "timer", "RLIMIT_NPROC", "*", EXPIRY_DROPPED},
    {"LEFTOVER", "timer", "RLIMIT_AS", "*", EXPIRY_DROPPED},
    {"LEFTOVER", "typed-start-up", "RLIMIT_NPROC", "*",
     "the C library (2.43) loses memory with each thread that it cannot start"},
    {"DIED", "folder-monitor", "read", "*", "a monitor that ended by itself is not to be destroyed"},
};

bool Fits(const char* pattern, const std::string& text) {
    return std::string(pattern) == "*" || text == pattern;
}

}  // namespace

const char* ReasonFor(const std::string& outcome, const std::string& scenario, const std::string& function,
                      const std::string& failure) {
    const auto* const found =
        std::find_if(std::begin(STATEMENTS), std::end(STATEMENTS), [&](const Statement& statement) {
            return Fits(statement.outcome, outcome) && Fits(statement.scenario, scenario) &&
                   Fits(statement.function, function) && Fits(statement.failure, failure);
        });
    return found == std::end(STATEMENTS) ? nullptr : found->reason;
}

}  // namespace tern::test
