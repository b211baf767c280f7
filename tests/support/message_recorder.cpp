// Part of this project's own test programs, not of the installed support: with TERN_LOG_COVERAGE=FILE each
// format that was captured is written there once per process, forked children included, as level, logger name
// and format with newlines escaped. Each run of a program begins the file anew, and only one of the same
// kind: any other is left as it is, and nothing is recorded.

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdlib>
#include <set>
#include <string>

#include "foundation/unique_fd.h"
#include "log_recorder.h"

namespace tern::test {

namespace {

/// The first line of each record.
const std::string& Heading() {
    static const auto* const heading = new std::string("level\tlogger\tformat\n");  // threads may log at exit
    return *heading;
}

/// By writev(2), as tests count calls of write(2), and let them fail or hang.
void Write(int fd, std::string line) {
    const iovec part{line.data(), line.size()};
    static_cast<void>(!writev(fd, &part, 1));
}

bool BeginFile(const char* path) {
    const mwl::UniqueFd file(open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0644));
    std::string begin(Heading().size(), '\0');
    const ssize_t size = file ? read(file.Get(), begin.data(), begin.size()) : -1;
    const bool isNew = size == 0;
    if (size < 0 || (!isNew && begin != Heading()) || ftruncate(file.Get(), 0) != 0) {
        return false;
    }
    static_cast<void>(lseek(file.Get(), 0, SEEK_SET));
    Write(file.Get(), Heading());
    return true;
}

/// Null when nothing is recorded.
const char* gPath = nullptr;

void Record(int level, const std::string& logger, const char* format) {
    static auto* const seen = new std::set<std::string>;
    std::string line = std::to_string(level).append("\t").append(logger).append("\t");
    for (const char* c = format; *c != '\0'; ++c) {
        *c == '\n' ? line.append("\\n") : line.append(1, *c);
    }
    line.append("\n");
    if (seen->insert(line).second) {
        const mwl::UniqueFd file(open(gPath, O_WRONLY | O_APPEND | O_CLOEXEC));
        if (file) {
            Write(file.Get(), line);
        }
    }
}

[[maybe_unused]] const bool gIsRecording = [] {
    gPath = getenv("TERN_LOG_COVERAGE");  // NOLINT(concurrency-mt-unsafe): no other threads yet
    const bool isRecording = gPath != nullptr && BeginFile(gPath);
    if (isRecording) {
        SetLogRecorder(Record);
    }
    return isRecording;
}();

}  // namespace

}  // namespace tern::test
