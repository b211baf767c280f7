#include "sweep.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <map>
#include <new>
#include <set>
#include <stdexcept>
#include <system_error>

#include "blocks.h"
#include "catalogue.h"
#include "leftovers.h"
#include "run_log.h"
#include "stated.h"
#include "support/wait_until.h"

// Present under LeakSanitizer only.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the sanitizer's own name
extern "C" int __lsan_do_recoverable_leak_check() __attribute__((weak));

namespace tern::test {

namespace {

/// A call in a loop fails in these of its rounds only; each request for memory once.
constexpr unsigned ROUNDS_OF_ONE_CALL = 3;
/// All calls of a function of libzip come from one place, that of our own function of this name.
constexpr unsigned ROUNDS_OF_LIBZIP = 10;
/// Something is left over when it is more after each of so many runs.
constexpr int RUNS_FOR_LEFTOVERS = 3;

bool IsMemory(const Failure& failure) {
    return failure.way == Failure::Way::BadAlloc;
}

bool IsAllowedException(const std::exception& exception) {
    return dynamic_cast<const std::bad_alloc*>(&exception) != nullptr ||
           dynamic_cast<const std::system_error*>(&exception) != nullptr;
}

}  // namespace

struct Sweep::Report {
    Outcome outcome;
    char text[4096];

    void Set(Outcome theOutcome, const std::string& theText) {
        outcome = theOutcome;
        text[theText.copy(text, sizeof text - 1)] = '\0';
    }
};

namespace {

/// For the terminate handler, which gets no arguments.
void (*gTold)(const char* what, bool allowed) = nullptr;

[[noreturn]] void OnTerminate() {
    std::string what = "no exception";
    bool allowed = false;
    if (const std::exception_ptr exception = std::current_exception()) {
        try {
            std::rethrow_exception(exception);
        } catch (const std::exception& caught) {
            what = caught.what();
            allowed = IsAllowedException(caught);
        } catch (...) {
            what = "an exception of an unknown type";
        }
    }
    gTold(what.c_str(), allowed);
    _exit(0);
}

/// What one run of a scenario gave.
struct RunResult {
    std::string refused;
    std::string missing;
    std::string violated;
    std::string raised;
    bool isAllowedException = true;
    std::string log;

    bool IsClean() const { return refused.empty() && missing.empty() && violated.empty() && raised.empty(); }
    std::string Describe() const {
        return (refused.empty() ? "" : "refused: " + refused + "\n") +
               (missing.empty() ? "" : "not done: " + missing + "\n") +
               (violated.empty() ? "" : "has to be so: " + violated + "\n") +
               (raised.empty() ? "" : "raised: " + raised + "\n") + log;
    }
};

/// In a child: runs the scenario again and again.
class Runner {
public:
    /// In a folder of its own in `folder`, or in that of another process.
    Runner(const Scenario& scenario, const std::string& folder, pid_t owner = getpid())
        : mScenario(scenario), mFolder(folder + "/" + std::to_string(owner)) {
        Intercept::WatchLogger(scenario.isLoggers);
    }

    /// With what that case is about, if one is given.
    RunResult Run(const Case* theCase = nullptr) {
        const std::string number = std::to_string(getpid()) + "r" + std::to_string(mRuns++);
        std::filesystem::create_directory(mFolder);
        Stage stage(mFolder, number);
        RunResult result;
        const bool isCall = theCase != nullptr && theCase->limit == nullptr;
        Intercept::Begin(isCall ? &theCase->point : nullptr, isCall ? theCase->failure : nullptr);
        Shortage::Arm(theCase != nullptr ? theCase->limit : nullptr, theCase != nullptr ? theCase->spare : 0);
        try {
            mScenario.run(stage);
        } catch (const std::exception& exception) {
            result.raised = exception.what();
            result.isAllowedException = IsAllowedException(exception);
        }
        Intercept::Switch(false);
        std::filesystem::remove_all(mFolder);
        result.refused = stage.Refused();
        result.missing = stage.Missing();
        result.violated = stage.Violated();
        result.log = mLog.Take();
        return result;
    }

private:
    const Scenario& mScenario;
    const std::string mFolder;  ///< the same in each run: it is in messages
    RunLog mLog;
    unsigned mRuns = 0;
};

void PrepareChild(unsigned limitSeconds) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    alarm(limitSeconds);
}

/// Whether there is a warning or worse that the run without a failure did not have.
bool HasWarned(const RunResult& clean, const RunResult& result) {
    const std::multiset<std::string> usual = RunLog::Warnings(clean.log);
    const std::multiset<std::string> now = RunLog::Warnings(result.log);
    return !std::includes(usual.begin(), usual.end(), now.begin(), now.end());
}

Outcome Judge(const Case& theCase, const RunResult& clean, const RunResult& result) {
    if (theCase.limit == nullptr && !Intercept::WasMet()) {
        return Outcome::NotMet;
    }
    if (!result.raised.empty()) {
        return result.isAllowedException ? Outcome::Raised : Outcome::Died;
    }
    if (!result.violated.empty()) {
        return Outcome::Violated;
    }
    if (!result.refused.empty() || HasWarned(clean, result)) {
        return Outcome::Reported;
    }
    if (result.missing.empty()) {
        return Outcome::Absorbed;
    }
    return theCase.IsStated(Outcome::Silent) ? Outcome::Stated : Outcome::Silent;
}

}  // namespace

bool Case::IsStated(Outcome outcome) const {
    const std::string met = limit != nullptr ? limit->name : Catalogue()[point.function].name;
    return ReasonFor(NameOf(outcome), scenario->name, met, limit != nullptr ? "" : failure->name) != nullptr;
}

std::string Case::Name() const {
    if (limit != nullptr) {
        return std::string(limit->name) + ":" + std::to_string(spare);
    }
    return std::string(Catalogue()[point.function].name) + ":" + std::to_string(point.occurrence) +
           (point.inFork ? "f:" : ":") + failure->name;
}

Sweep::Sweep(unsigned limitSeconds)
    : mLimitSeconds(limitSeconds),
      mReport(static_cast<Report*>(
          mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
    if (mReport == MAP_FAILED) {
        throw std::runtime_error("no memory for the report");
    }
    static Report* report = nullptr;
    report = mReport;
    gTold = [](const char* what, bool allowed) {
        report->Set(allowed ? Outcome::Ended : Outcome::Died, what);
    };
}

std::vector<Case> Sweep::FindCases(const Scenario& scenario) {
    mReport->Set(Outcome::Died, "");
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        RecordMain(scenario);
    }
    Attend(pid, scenario.name);
    std::vector<Case> cases;
    if (mReport->outcome != Outcome::Absorbed) {
        printf("%s: %s without a failure\n%s\n", scenario.name, NameOf(mReport->outcome), mReport->text);
        return cases;
    }
    std::map<std::pair<unsigned, std::uintptr_t>, unsigned> rounds;
    for (unsigned index = 0; index < Intercept::SeenCount(); ++index) {
        const SeenCall call = Intercept::Seen(index);
        const unsigned round = rounds[{call.point.function, call.site}]++;
        const Faultable& function = Catalogue()[call.point.function];
        const bool isLibzip = std::string(function.name).starts_with("zip_");
        for (const Failure& failure : function.failures) {
            if (round < (IsMemory(failure) ? 1 : isLibzip ? ROUNDS_OF_LIBZIP : ROUNDS_OF_ONE_CALL)) {
                cases.push_back({&scenario, call.point, &failure});
            }
        }
    }
    return cases;
}

Outcome Sweep::Run(const Case& theCase) {
    mReport->Set(Outcome::Died, "");
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        CaseMain(theCase);
    }
    Attend(pid, theCase.scenario->name);
    if (theCase.limit != nullptr && theCase.limit->hasKilled != nullptr && theCase.limit->hasKilled(pid) &&
        mReport->outcome == Outcome::Died) {
        const pid_t successor = fork();
        if (successor == 0) {
            SuccessorMain(*theCase.scenario, pid);
        }
        Attend(successor, theCase.scenario->name);
    }
    if (!IsAllowed(mReport->outcome) && theCase.IsStated(mReport->outcome)) {
        mReport->outcome = Outcome::Stated;
    }
    if (!IsAllowed(mReport->outcome)) {
        printf("%s: %s--scenario %s --case %s\n%s\n", NameOf(mReport->outcome),
               theCase.limit != nullptr ? "--limits " : "", theCase.scenario->name, theCase.Name().c_str(),
               mReport->text);
    }
    return mReport->outcome;
}

void Sweep::RecordMain(const Scenario& scenario) {
    PrepareChild(mLimitSeconds);
    Runner runner(scenario, mFolder.Path());
    RunResult result = runner.Run();
    if (result.IsClean()) {
        result = runner.Run();
    }
    mReport->Set(result.IsClean() ? Outcome::Absorbed : Outcome::Broken, result.Describe());
    _exit(0);
}

void Sweep::SuccessorMain(const Scenario& scenario, int former) {
    PrepareChild(mLimitSeconds);
    const RunResult result = Runner(scenario, mFolder.Path(), former).Run();
    mReport->Set(result.IsClean() ? Outcome::Killed : Outcome::Lasting,
                 "after the kernel had killed the former process:\n" + result.Describe());
    _exit(0);
}

void Sweep::CaseMain(const Case& theCase) {
    PrepareChild(mLimitSeconds);
    std::set_terminate(OnTerminate);
    std::string folder = mFolder.Path();
    if (theCase.limit != nullptr && !theCase.limit->prepare(folder)) {
        mReport->Set(Outcome::Skipped, "");
        _exit(0);
    }
    Runner runner(*theCase.scenario, folder);
    const RunResult clean = runner.Run();
    if (!clean.IsClean()) {
        mReport->Set(Outcome::Broken, clean.Describe());
        _exit(0);
    }
    Outcome outcome = Outcome::NotMet;
    std::string grown;
    for (int round = 0; round < RUNS_FOR_LEFTOVERS; ++round) {
        Holdings before = Holdings::Take(0);
        before.blocks = CountBlocks();  // those that hold `before` included
        {
            const RunResult result = runner.Run(&theCase);
            if (round == 0) {
                outcome = Judge(theCase, clean, result);
                mReport->Set(outcome, result.Describe());  // where it takes no memory of this process's
            }
        }
        // A failure may let something be made that is made once.
        grown = Holdings::Take(before.threads).Since(before);
        if (grown.empty() || outcome == Outcome::NotMet || !IsAllowed(outcome) ||
            theCase.IsStated(Outcome::Leftover)) {
            break;
        }
    }
    if (IsAllowed(outcome) && outcome != Outcome::NotMet) {
        std::string text = mReport->text;
        const RunResult last = runner.Run();
        if (!last.IsClean()) {
            text += "then without a failure:\n" + last.Describe();
            outcome = Outcome::Lasting;
        } else if (!grown.empty() && theCase.IsStated(Outcome::Leftover)) {
            outcome = Outcome::Stated;
        } else if (!grown.empty()) {
            text += "left over after each of three runs: " + grown;
            outcome = Outcome::Leftover;
        } else if (__lsan_do_recoverable_leak_check != nullptr && __lsan_do_recoverable_leak_check() != 0) {
            text += "memory was lost";
            outcome = Outcome::Leftover;
        }
        mReport->Set(outcome, text);
    }
    _exit(0);
}

void Sweep::Attend(int pid, const std::string& name) {
    if (pid < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(status)) {
        const bool hung = WTERMSIG(status) == SIGALRM;
        mReport->Set(hung ? Outcome::Hung : Outcome::Died, name + ": signal " + strsignal(WTERMSIG(status)));
    } else if (WEXITSTATUS(status) != 0) {
        mReport->Set(Outcome::Died, name + ": exit status " + std::to_string(WEXITSTATUS(status)));
    }
}

const char* NameOf(Outcome outcome) {
    static constexpr const char* NAMES[] = {"not met",  "skipped", "absorbed", "reported", "raised",
                                            "ended",    "killed",  "stated",   "VIOLATED", "SILENT",
                                            "LEFTOVER", "LASTING", "HUNG",     "DIED",     "BROKEN"};
    return NAMES[static_cast<std::size_t>(outcome)];
}

}  // namespace tern::test
