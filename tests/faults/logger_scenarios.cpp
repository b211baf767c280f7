#include <fcntl.h>
#include <tern/foundation/log.h>
#include <unistd.h>

#include <string>

#include "scenarios.h"

namespace tern::test {

namespace {

/// A short message and one that needs memory. A message that cannot be written is lost: there is nowhere to
/// tell it.
void RunMessages(Stage& stage) {
    static const std::string LOGGER = "Faults";
    const std::string longText(10000, 'l');
    const off_t before = lseek(STDERR_FILENO, 0, SEEK_END);
    stage.Sweep([&] {
        TERN_LOG_INFO(LOGGER, "%s", "short");
        TERN_LOG_INFO(LOGGER, "%s", longText.c_str());
    });
    const off_t written = lseek(STDERR_FILENO, 0, SEEK_END) - before;
    stage.Expect(written > static_cast<off_t>(longText.size()), "both messages are written");
}

}  // namespace

std::vector<Scenario> LoggerScenarios() {
    return {{"logger", RunMessages, true}};
}

}  // namespace tern::test
