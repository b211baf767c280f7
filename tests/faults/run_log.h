#pragma once

#include <cstddef>
#include <set>
#include <string>

namespace tern::test {

/// A file in memory for what processes write to their standard error; who made it can read it when they are
/// dead.
class LogFile {
public:
    /// Throws std::system_error.
    LogFile();
    ~LogFile();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    /// The last `most` bytes at most.
    std::string GetEnd(std::size_t most) const;
    int GetFd() const { return mFd; }

private:
    int mFd;
};

/// The messages that this process logs through the real logger to its standard error.
class RunLog {
public:
    /// From now on standard error leads to the file, which is empty.
    explicit RunLog(const LogFile& file);
    RunLog(const RunLog&) = delete;
    RunLog& operator=(const RunLog&) = delete;

    /// What came since the last call.
    std::string Take();

    /// The messages of level warning or worse, without the thread that logged them.
    static std::multiset<std::string> Warnings(const std::string& log);

private:
    int mFd;
    long mTaken = 0;
};

}  // namespace tern::test
