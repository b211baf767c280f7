#pragma once

#include <set>
#include <string>

namespace tern::test {

/// The messages that this process logs through the real logger to its standard error.
class RunLog {
public:
    /// From now on standard error leads here.
    RunLog();
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
