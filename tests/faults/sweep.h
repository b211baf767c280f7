#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "failure.h"
#include "intercept.h"
#include "limits.h"
#include "run_log.h"
#include "stage.h"
#include "support/temp_folder.h"
#include "support/wait_until.h"

namespace tern::test {

/// How a run with one failing call came out.
enum class Outcome {
    // What may be.
    NotMet,    ///< the call did not come this time: threads took another order
    Skipped,   ///< the system does not permit the limit
    Absorbed,  ///< everything was done all the same
    Reported,  ///< a failing status, or a message of warning or worse
    Raised,    ///< std::bad_alloc or std::system_error reached the caller
    Ended,     ///< the same on a thread of the library's: the process ended by it
    Killed,    ///< by the kernel, for want of memory; who came after it worked with what was left
    Stated,    ///< what may not be, but is stated
    // What may not be.
    Violated,  ///< something that has to be so whatever fails was not
    Silent,    ///< something was not done and nothing told
    Leftover,  ///< the process holds more than before
    Lasting,   ///< without the failure the scenario does not work any more
    Hung,      ///< not over in time
    Died,      ///< ended by a signal, or by an exception that is not one of the two
    Broken,    ///< already the run without a failure does not work
    Count
};

/// One scenario, and what it meets with: one call of it and one error, or one limit.
struct Case {
    const Scenario* scenario;
    CallPoint point{};
    const Failure* failure = nullptr;
    const Limit* limit = nullptr;  ///< instead of the call and its error
    unsigned spare = 0;            ///< of what the limit is about

    /// "function:occurrence:error", with "f" behind the occurrence for a call of a forked child, or
    /// "limit:spare".
    std::string Name() const;
    /// Whether this is stated to come out so.
    bool IsStated(Outcome outcome) const;
};

/// Runs scenarios with one failing call each, or one limit, every run in a process of its own. Create it
/// before the first thread; the import tables are to be prepared already (Intercept::Install).
class Sweep {
public:
    /// `limitSeconds`: by when a run, or what follows of it, is hung. The default is generous for a scenario
    /// of a few milliseconds, under a sanitizer on a busy machine too, and longer than sd-bus waits for a
    /// reply (25 s): without memory for it, newer ones drop the reply and go on waiting.
    explicit Sweep(unsigned limitSeconds = 35 * static_cast<unsigned>(SLOWNESS));
    Sweep(const Sweep&) = delete;
    Sweep& operator=(const Sweep&) = delete;

    /// All cases of a scenario, from the calls that it makes when nothing fails. Empty when it does not work;
    /// why is printed.
    std::vector<Case> FindCases(const Scenario& scenario);

    /// Runs one case; what may not be is printed with the command that repeats it.
    Outcome Run(const Case& theCase);

private:
    struct Report;

    [[noreturn]] void RecordMain(const Scenario& scenario);
    [[noreturn]] void CaseMain(const Case& theCase);
    /// In the folder of the process `former`, which was killed.
    [[noreturn]] void SuccessorMain(const Scenario& scenario, int former);
    /// Begins with no report and no log; as fork(2).
    int Fork();
    /// Waits for the child; when it died or was hung that is the report, with the end of what it had logged.
    void Attend(int pid, const std::string& name);

    const unsigned mLimitSeconds;
    TempFolder mFolder;
    std::optional<LogFile> mLog;  ///< of the child that runs, or ran last
    Report* mReport;              ///< shared with the children
};

/// For the table at the end.
const char* NameOf(Outcome outcome);
constexpr bool IsAllowed(Outcome outcome) {
    return outcome < Outcome::Violated;
}
using Tally = std::array<unsigned, static_cast<std::size_t>(Outcome::Count)>;

}  // namespace tern::test
