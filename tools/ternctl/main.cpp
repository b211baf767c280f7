// ternctl: looks into services with diagnostics, from a shell on the device or over ssh.

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>

#include "commands.h"
#include "output.h"

using ternctl::ExitStatus;

namespace {

constexpr const char* USAGE =
    "Usage: ternctl [OPTION...] COMMAND [ARGUMENT...]\n"
    "Looks into the services on the bus that have diagnostics: what they are doing, how they ended.\n"
    "\n"
    "  list                            services with diagnostics\n"
    "  status NAME                     a page about a service\n"
    "  top                             all services, the busiest first, until q or Ctrl-C\n"
    "  events NAME                     what the flight recorder holds\n"
    "  events --pid PID                the same of a process here, without the bus, though it hangs\n"
    "  log NAME                        the last messages of level warning and worse; also with --pid\n"
    "  why NAME                        how the service's former life ended\n"
    "  log-level NAME [LEVEL]          show or set the threshold of the service's log\n"
    "  chart NAME SECONDS FILE.svg     watch for a while and draw memory, calls, latency and queues\n"
    "\n"
    "Options:\n"
    "      --json                      a JSON document; of top and events --follow one in each line\n"
    "      --system, --user            the system bus (the default), the bus of the user\n"
    "      --address ADDRESS           the bus at a D-Bus address\n"
    "  -H, --host [USER@]HOST          the system bus of another machine, through ssh\n"
    "      --timeout SECONDS           how long an answer is waited for (5; list: 2; top: 1)\n"
    "      --names                     list: names only\n"
    "      --full                      status: all of it, also what no screen holds;\n"
    "                                  events --follow: also what looking brings about\n"
    "      --period SECONDS            top: time between two looks (1)\n"
    "      --count N                   top: end after so many pages\n"
    "  -f, --follow                    events: go on with what comes\n"
    "  -n, --last N                    events, log: only the last N\n"
    "      --pid PID                   events, log: of this process, in place of a name\n"
    "  -h, --help                      this text\n"
    "      --version                   the version\n"
    "\n"
    "Exit status: 0 done, 1 failed, 2 wrong use, 3 nobody there: the name is not on the bus, or has no\n"
    "diagnostics; there is no such process, or it has no flight recorder. NO_COLOR=1 switches colours off.\n";

ExitStatus Run(const ternctl::Options& options) {
    if (options.isHelp) {
        ternctl::Print(USAGE);
        return ExitStatus::Done;
    }
    if (options.isVersion) {
        ternctl::PrintLine("ternctl " TERN_VERSION);
        return ExitStatus::Done;
    }
    struct Command {
        const char* name;
        ExitStatus (*run)(const ternctl::Options& options);
    };
    static constexpr Command COMMANDS[] = {
        {"list", ternctl::RunList},          {"status", ternctl::RunStatus}, {"top", ternctl::RunTop},
        {"events", ternctl::RunEvents},      {"log", ternctl::RunLog},       {"why", ternctl::RunWhy},
        {"log-level", ternctl::RunLogLevel}, {"chart", ternctl::RunChart},
    };
    for (const Command& command : COMMANDS) {
        if (options.command == command.name) {
            return command.run(options);
        }
    }
    throw ternctl::WrongUse("unknown command '" + options.command + "'");
}

ExitStatus Main(int argc, char* argv[]) {
    try {
        return Run(ternctl::ReadOptions(argc, argv));
    } catch (const ternctl::WrongUse& wrong) {
        ternctl::Complain(wrong.what());
        fputs("Try 'ternctl --help'.\n", stderr);
        return wrong.GetStatus();
    } catch (const ternctl::Failure& failure) {
        ternctl::Complain(failure.what());
        return failure.GetStatus();
    } catch (const std::bad_alloc&) {
        ternctl::Complain("out of memory");
    } catch (const std::exception& error) {
        ternctl::Complain(error.what());
    }
    return ExitStatus::Failed;
}

}  // namespace

int main(int argc, char* argv[]) {
    // Nothing else runs yet. A person reads this output: the library's own messages only on demand.
    setlocale(LC_CTYPE, "");                  // NOLINT(concurrency-mt-unsafe)
    setenv("TERN_LOG_LEVEL", "critical", 0);  // NOLINT(concurrency-mt-unsafe)
    return static_cast<int>(Main(argc, argv));
}
