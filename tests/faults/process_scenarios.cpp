#include <sys/wait.h>
#include <tern/process_execution/command.h>

#include <string>

#include "scenarios.h"
#include "support/wait_until.h"

namespace tern::test {

namespace {

using mwl::ProcessExecution::Command;

/// Waited out when the output's stream fails.
constexpr unsigned LIMIT_MS = 1000 * SLOWNESS;

void RunWithInputAndOutput(Stage& stage) {
    // More than a pipe takes at once.
    const std::string input(100000, 'i');
    stage.Sweep([&] {
        std::string output;
        int exitCode = -1;
        if (stage.Accept(Command::RunWithInput("/bin/cat", input, "-", output, exitCode, LIMIT_MS),
                         "RunWithInput")) {
            stage.Expect(exitCode != 0 || output == input, "the output is whole");
            stage.Expect(exitCode == 0, "the program succeeds");
        }
    });
}

void RunMissingProgram(Stage& stage) {
    stage.Sweep([&] {
        std::string output;
        int exitCode = 0;
        static_cast<void>(Command::Run("/no/such/program", "", output, exitCode));
        stage.Expect(exitCode != 0, "the missing program is told of");
    });
}

/// One that is killed at its time limit. The library does not wait for it; each run reaps the one before.
void RunTooLong(Stage& stage) {
    stage.Sweep([&] {
        Command command("/bin/sleep", 20);
        std::string output;
        int exitCode = 0;
        static_cast<void>(command.Run({"1"}, output, exitCode));
        stage.Expect(exitCode != 0, "the killed program is told of");
    });
    while (waitpid(-1, nullptr, 0) > 0) {
    }
}

}  // namespace

std::vector<Scenario> ProcessScenarios() {
    return {{"command-with-input", RunWithInputAndOutput},
            {"command-missing-program", RunMissingProgram},
            {"command-time-limit", RunTooLong}};
}

}  // namespace tern::test
