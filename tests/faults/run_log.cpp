#include "run_log.h"

#include <sys/mman.h>
#include <unistd.h>

#include <sstream>

namespace tern::test {

RunLog::RunLog() : mFd(memfd_create("log", MFD_CLOEXEC)) {
    dup2(mFd, STDERR_FILENO);
}

std::string RunLog::Take() {
    std::string log;
    char chunk[4096];
    ssize_t count = 0;
    while ((count = pread(mFd, chunk, sizeof chunk, mTaken)) > 0) {
        log.append(chunk, static_cast<std::size_t>(count));
        mTaken += count;
    }
    return log;
}

std::multiset<std::string> RunLog::Warnings(const std::string& log) {
    std::multiset<std::string> warnings;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        if (line.size() > 2 && line[0] == '<' && line[1] >= '0' && line[1] <= '4' && line[2] == '>') {
            warnings.insert(line.substr(line.find(']') + 1));
        }
    }
    return warnings;
}

}  // namespace tern::test
