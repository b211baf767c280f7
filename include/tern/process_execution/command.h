#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

#include <string>
#include <vector>

namespace mwl::ProcessExecution {

/// Runs one external program, directly (no shell): with arguments, a text on its standard input, everything
/// it writes on standard output and standard error collected as one string, a time limit, and its exit code.
///
///     std::string output;
///     int exitCode = 0;
///     mwl::ProcessExecution::Command command("/sbin/ip", 5000);
///     if (command.Run({"-brief", "address"}, output, exitCode) == mwl::StatusCode::Ok && exitCode == 0) ...
///
/// Threads: an object holds only its path, name and limit; different objects, and also one object, may run
/// programs simultaneously on any threads, because nothing in an object changes. Programs that run
/// simultaneously never hold each other's pipes. Every run blocks its caller until the program has ended or
/// its time is up.
///
/// The child shares this process's memory until it executes the program, as with vfork(2): what a start costs
/// does not grow with the process. The caller waits that long; the time limit begins then. No handler of
/// pthread_atfork(3) runs.
///
/// A run, as the program sees it:
/// - It inherits the environment, the working folder, the ignored signals and the calling thread's blocked
///   signals: under the service component SIGTERM and SIGINT are blocked in it.
/// - Its descriptors 0, 1 and 2 are pipes; of the parent's it inherits those without close-on-exec.
/// - Input that it did not read before its end is dropped. A program that closes its input early does not
///   harm the caller: SIGPIPE (signal(7)) is held off around each write and taken back, in the calling thread
///   only.
/// - Its end ends the run, also when a process that it started still holds the output: output that this
///   process has written by then is collected.
/// - At its time limit it is killed with SIGKILL, alone (processes that it started live on), and it is not
///   waited for, because a program stuck in the kernel would hold the caller. A program whose run ended early
///   by a failure is not killed and not waited for either. Both are remembered: each later run, of any
///   object, and the end of the process reap those of them that have ended (waitpid(2) with their number,
///   without waiting), and no other child. Until then an ended one is a zombie; the application may reap it
///   itself. A forked child does not look for its parent's programs.
/// - The time limit is one of CLOCK_MONOTONIC, also while the caller is stopped (SIGSTOP, the freezer). A
///   program that has ended when its time is found to be up counts as ended by itself.
/// - At debug level its output is logged line by line, and read no faster than it is logged. The time limit
///   holds all the same: lines that have been read when the run is over are logged for 100 ms beyond the time
///   limit at most, and one line sums up the rest. `output` is not cut.
///
/// REQUIRES: the process neither ignores SIGCHLD nor reaps children that are not its own to reap; otherwise
/// the program's end is lost, and the run fails by waitpid(2).
///
/// Outcomes of every run: `exitCode` is 1 until the program has ended by itself, then its exit status;
/// `output` is appended to, never cleared, and byte for byte what the program wrote, zero bytes included. It
/// grows as far as the program writes, so the time limit is also the limit of memory. Beyond 1 MiB it has
/// room for 16 MiB, then for 256 MiB (its capacity()), but memory only for what is written, unless the
/// process locks all its memory (mlockall(2)).
///
/// | what happened | status | exitCode |
/// |---|---|---|
/// | the program ended with status n | Ok | n |
/// | a signal ended it | Ok | 1 |
/// | it was killed at the time limit | Ok | 1 |
/// | it could not be executed (missing, not executable, ...; logged) | Ok | 1 |
/// | pipe2(2), clone(2) or mmap(2) failed (logged): there is no child | that of errno | 1 |
/// | fdopen(3) on the output failed | StreamError | 1 |
/// | the output could not be made non-blocking | that of errno | 1 |
/// | read(2) of the output failed (logged; what came before is kept) | that of the end | as above |
/// | waitpid(2) or kill(2) failed (nothing is killed after the former) | that of errno | 1 |
/// | poll(2) failed, for example interrupted by a handler (the run goes on to its end) | that of errno | 1 |
class TERN_API Command {
public:
    /// The name, which the program gets as its argument 0, is what follows the last "/" of `path`. `path` is
    /// used as it is (execv(3)), PATH is not searched. `timeoutMs`: milliseconds (CLOCK_MONOTONIC) from the
    /// start of the program to its end; 0 kills it after a millisecond at the latest.
    Command(const std::string& path, unsigned int timeoutMs);
    /// With a name of its own.
    Command(const std::string& path, const std::string& name, unsigned int timeoutMs);
    /// The same program, name and limit.
    Command(const Command&) = default;
    /// Runs the other one's program from now on.
    Command& operator=(const Command&) = default;
    virtual ~Command();

    /// Makes `argv` the vector for execv(3): the name, each argument, a null pointer. It points into this
    /// object and into `arguments`, which must outlive its use. Logs the path and the arguments.
    void FormatArguments(const std::vector<std::string>& arguments, std::vector<char*>& argv);

    /// The whole run. `input` goes to the program's standard input, then end of file; nothing is added. It is
    /// a text: it ends at its first zero byte. It may be larger than a pipe, and is fed while output is read.
    /// Blocks for the time limit and about 100 ms at most.
    StatusCode Execute(const std::string& input, const std::vector<std::string>& arguments,
                       std::string& output, int& exitCode);
    /// The same as Execute.
    StatusCode RunWithInput(const std::string& input, const std::vector<std::string>& arguments,
                            std::string& output, int& exitCode);
    /// Execute without input: the program finds its standard input at end of file.
    StatusCode Run(const std::vector<std::string>& arguments, std::string& output, int& exitCode);

    /// One run of the program at `path` with `arguments` split at each space. Consecutive, leading and
    /// trailing spaces make no empty arguments; there is no quoting, so an argument cannot hold a space.
    static StatusCode RunWithInput(const std::string& path, const std::string& input,
                                   const std::string& arguments, std::string& output, int& exitCode,
                                   unsigned int timeoutMs);
    /// The same without input, within 40 seconds.
    static StatusCode Run(const std::string& path, const std::string& arguments, std::string& output,
                          int& exitCode);

private:
    std::string mPath;
    std::string mName;
    unsigned int mTimeoutMs;
};

}  // namespace mwl::ProcessExecution
