#include <tern/process_execution/command.h>

#include <sys/wait.h>
#include <tern/foundation/log.h>
#include <tern/utilities/file_system.h>

#include "process_execution/child_process.h"
#include "process_execution/input_feeder.h"
#include "process_execution/left_children.h"
#include "process_execution/logger.h"
#include "process_execution/output_stream.h"
#include "process_execution/split_arguments.h"
#include "process_execution/supervisor.h"

namespace mwl::ProcessExecution {

namespace {

/// Time limit of the operation that is given none.
constexpr unsigned int DEFAULT_TIMEOUT_MS = 40000;

std::string NameOf(const std::string& path) {
    const std::string& separator = mwl::Utilities::FileSystem::FOLDER_SEPARATOR;
    const std::size_t last = path.rfind(separator);
    return last == std::string::npos ? path : path.substr(last + separator.size());
}

/// "name first second", without name when that is null.
std::string Join(const std::string* name, const std::vector<std::string>& arguments) {
    std::string line = name != nullptr ? *name : std::string();
    bool first = name == nullptr;
    for (const std::string& argument : arguments) {
        if (!first) {
            line += ' ';
        }
        first = false;
        line += argument;
    }
    return line;
}

/// Runs the started program to its end.
StatusCode Attend(ChildProcess& child, const std::string& name, unsigned int timeoutMs,
                  const std::string& input, OutputStream& stream, int& waitStatus) {
    // By c_str: an input is a text, which ends at its first zero byte.
    InputFeeder feeder(child.TakeInput(), input.c_str(), child.GetPid());
    feeder.Feed();
    child.CloseChildEnds();
    const StatusCode opened = stream.Open(child.TakeOutput());
    if (opened != StatusCode::Ok) {
        child.AwaitStart();
        child.LogStartFailure();
        return opened;
    }
    TERN_LOG_INFO(LOGGER, "PID[%d] Launched... ", child.GetPid());
    return Supervisor(name, timeoutMs, child, feeder, stream).Run(waitStatus);
}

}  // namespace

Command::Command(const std::string& path, unsigned int timeoutMs) : Command(path, NameOf(path), timeoutMs) {}

Command::Command(const std::string& path, const std::string& name, unsigned int timeoutMs)
    : mPath(path), mName(name), mTimeoutMs(timeoutMs) {}

Command::~Command() = default;

void Command::FormatArguments(const std::vector<std::string>& arguments, std::vector<char*>& argv) {
    argv.clear();
    argv.reserve(arguments.size() + 2);
    // execv(3) takes pointers to non-const for historical reasons and changes nothing.
    argv.push_back(const_cast<char*>(mName.c_str()));
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    TERN_LOG_INFO(LOGGER, "Execute the program: %s", mPath.c_str());
    TERN_LOG_TRACE(LOGGER, "Execute the command line: %s", Join(&mName, arguments).c_str());
    TERN_LOG_TRACE(LOGGER, "Command arguments: %s", Join(nullptr, arguments).c_str());
}

StatusCode Command::Execute(const std::string& input, const std::vector<std::string>& arguments,
                            std::string& output, int& exitCode) {
    if (&input == &output) {
        return Execute(std::string(input), arguments, output, exitCode);
    }
    exitCode = 1;
    std::vector<char*> argv;
    FormatArguments(arguments, argv);
    if (!input.empty()) {
        TERN_LOG_INFO(LOGGER, "Command input: '%s'", input.c_str());
    }
    // First, so that the process ids of former programs are free for this one.
    LeftChildren::Reap();
    // Before the program runs: without memory for the stream there is no program either.
    OutputStream stream(output);
    ChildProcess child;
    StatusCode status = child.Start(mPath, argv);
    if (status != StatusCode::Ok) {
        return status;
    }
    int waitStatus = 0;
    status = Attend(child, mName, mTimeoutMs, input, stream, waitStatus);
    if (status == StatusCode::Ok && WIFEXITED(waitStatus)) {
        exitCode = WEXITSTATUS(waitStatus);
        if (exitCode != 0) {
            TERN_LOG_WARNING(LOGGER, "PID[%d] Execute command failed with exit status: %d ", child.GetPid(),
                             exitCode);
        }
    }
    return status;
}

StatusCode Command::RunWithInput(const std::string& input, const std::vector<std::string>& arguments,
                                 std::string& output, int& exitCode) {
    return Execute(input, arguments, output, exitCode);
}

StatusCode Command::Run(const std::vector<std::string>& arguments, std::string& output, int& exitCode) {
    return Execute(std::string(), arguments, output, exitCode);
}

StatusCode Command::RunWithInput(const std::string& path, const std::string& input,
                                 const std::string& arguments, std::string& output, int& exitCode,
                                 unsigned int timeoutMs) {
    return Command(path, timeoutMs).RunWithInput(input, SplitArguments(arguments), output, exitCode);
}

StatusCode Command::Run(const std::string& path, const std::string& arguments, std::string& output,
                        int& exitCode) {
    return RunWithInput(path, std::string(), arguments, output, exitCode, DEFAULT_TIMEOUT_MS);
}

}  // namespace mwl::ProcessExecution
