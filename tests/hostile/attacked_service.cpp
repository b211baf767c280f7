#include "attacked_service.h"

#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "support/wait_until.h"

namespace hostile {

AttackedService::AttackedService(const std::string& program, const char* logLevel,
                                 std::chrono::milliseconds watchdog) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe for the service");
    }
    mLog.Reset(ends[0]);
    const mwl::UniqueFd writeEnd(ends[1]);
    // All is prepared before the fork: other threads may hold locks.
    std::vector<std::string> texts{std::string("TERN_LOG_LEVEL=") + logLevel};
    if (watchdog.count() != 0) {
        texts.push_back("WATCHDOG_USEC=" + std::to_string(watchdog.count() * 1000));
    }
    std::vector<char*> environment;
    for (std::string& text : texts) {
        environment.push_back(text.data());
    }
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (strncmp(*entry, "TERN_LOG_", strlen("TERN_LOG_")) != 0 &&
            strncmp(*entry, "WATCHDOG_", strlen("WATCHDOG_")) != 0) {
            environment.push_back(*entry);
        }
    }
    environment.push_back(nullptr);
    mPid = fork();
    if (mPid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(writeEnd.Get(), STDERR_FILENO);
        execle(program.c_str(), program.c_str(), static_cast<char*>(nullptr), environment.data());
        _exit(127);
    }
    if (mPid < 0) {
        throw std::runtime_error("no process for the service");
    }
    mReader = std::thread([this] { ReadLog(); });
}

AttackedService::~AttackedService() {
    End();
}

void AttackedService::End() {
    if (mReader.joinable()) {
        kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
        mReader.join();
    }
}

void AttackedService::BeginCount() {
    if (!tern::test::WaitUntil([this] { return mIsUp.load(); })) {
        throw std::runtime_error("the service does not come up");
    }
    std::ofstream("/proc/" + std::to_string(mPid) + "/clear_refs") << 5;  // the peak begins again
    mMemoryBefore = Memory("VmRSS:");
    mLinesBefore = mLines;
    mBytesBefore = mBytes;
}

std::size_t AttackedService::GrowthBytes() const {
    const std::size_t peak = Memory("VmHWM:");
    return peak > mMemoryBefore ? peak - mMemoryBefore : 0;
}

bool AttackedService::IsAlive() const {
    return kill(mPid, 0) == 0 && Memory("VmRSS:") != 0;
}

std::size_t AttackedService::Memory(const char* field) const {
    std::ifstream status("/proc/" + std::to_string(mPid) + "/status");
    std::string word;
    while (status >> word) {
        std::size_t kibibytes = 0;
        if (word == field && status >> kibibytes) {
            return kibibytes * 1024;
        }
    }
    return 0;
}

void AttackedService::ReadLog() {
    std::array<char, 65536> text;
    std::string beginning;
    ssize_t count = 0;
    while ((count = read(mLog.Get(), text.data(), text.size())) > 0) {
        mLines += static_cast<std::size_t>(std::count(text.data(), text.data() + count, '\n'));
        mBytes += static_cast<std::size_t>(count);
        if (!mIsUp) {
            // What both threads say last.
            beginning.append(text.data(), static_cast<std::size_t>(count));
            mIsUp = beginning.find("Join D-Bus thread") != std::string::npos &&
                    beginning.find("Entering D-Bus event loop") != std::string::npos &&
                    beginning.ends_with('\n');
        }
    }
}

}  // namespace hostile
