#include "run_log.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>
#include <system_error>

namespace tern::test {

LogFile::LogFile() : mFd(memfd_create("log", MFD_CLOEXEC)) {
    if (mFd < 0) {
        throw std::system_error(errno, std::generic_category(), "memfd_create");
    }
}

LogFile::~LogFile() {
    close(mFd);
}

std::string LogFile::GetEnd(std::size_t most) const {
    std::string end(most, '\0');
    const off_t size = lseek(mFd, 0, SEEK_END);
    const off_t from = size > static_cast<off_t>(most) ? size - static_cast<off_t>(most) : 0;
    const ssize_t count = pread(mFd, end.data(), most, from);
    end.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return end;
}

RunLog::RunLog(const LogFile& file) : mFd(file.GetFd()) {
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
