#include "explorer.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <new>

#include "choices.h"
#include "depth_first.h"
#include "engine.h"
#include "random_priorities.h"

namespace tern::schedules {

namespace {

using Clock = std::chrono::steady_clock;

/// Beyond the time that was allowed, before a child counts as hung: one schedule takes milliseconds, on a
/// loaded machine too.
constexpr std::chrono::seconds PATIENCE{60};
/// How many lines of a schedule are printed.
constexpr std::size_t MOST_LINES = 120;

/// One processor for all threads: as only one runs at a time, another one would only have to be woken up.
void StayOnOneProcessor() {
    cpu_set_t set;
    if (sched_getaffinity(0, sizeof set, &set) != 0) {
        return;
    }
    const int chosen =
        static_cast<int>(static_cast<unsigned>(getpid()) % static_cast<unsigned>(CPU_COUNT(&set)));
    int seen = 0;
    for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
        if (CPU_ISSET(processor, &set) && seen++ == chosen) {
            CPU_ZERO(&set);
            CPU_SET(processor, &set);
            static_cast<void>(sched_setaffinity(0, sizeof set, &set));
            return;
        }
    }
}

/// The place in the code, as far as the dynamic symbols tell.
std::string PlaceOf(const void* address) {
    Dl_info info{};
    if (address == nullptr || dladdr(address, &info) == 0) {
        return "";
    }
    const std::string file = info.dli_fname == nullptr ? "" : info.dli_fname;
    if (info.dli_sname != nullptr) {
        int status = 0;
        const std::unique_ptr<char, decltype(&std::free)> name(
            abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status), &std::free);
        const std::string whole = name != nullptr ? name.get() : info.dli_sname;
        return whole.substr(0, whole.find('('));
    }
    char text[64];
    std::snprintf(text, sizeof text, "+%#tx",
                  static_cast<const char*>(address) - static_cast<const char*>(info.dli_fbase));
    return file.substr(file.rfind('/') + 1) + text;
}

}  // namespace

Explorer::Result Explorer::RunDepthFirst(const Bounds& bounds) const {
    return RunInChild(
        [&](Record& record) {
            Engine engine(record);
            // What is done once in a process must not be part of a run that is repeated.
            Choices none;
            engine.Run(mScenario.body, mScenario.limits, none);
            record.schedules = 0;
            record.allSteps = 0;
            DepthFirst chooser(bounds.preemptions);
            const Clock::time_point end = Clock::now() + bounds.time;
            do {
                engine.Run(mScenario.body, mScenario.limits, chooser);
                if (chooser.HasDiverged()) {
                    record.fault = Record::Fault::NotAlike;
                    std::strcpy(record.text.data(), "the same choices gave other options than before");
                    _exit(Engine::FAILED);
                }
                if (!chooser.Next()) {
                    record.isComplete = true;
                    return;
                }
            } while (record.schedules < bounds.schedules && Clock::now() < end);
        },
        bounds);
}

Explorer::Result Explorer::RunRandom(std::uint64_t seed, const Bounds& bounds) const {
    return RunInChild(
        [&](Record& record) {
            Engine engine(record);
            Choices none;
            engine.Run(mScenario.body, mScenario.limits, none);
            engine.Run(mScenario.body, mScenario.limits, none);
            // Other schedules than the plain one have more of them.
            const std::size_t length = 2 * record.choiceCount + 4;
            record.schedules = 0;
            record.allSteps = 0;
            record.isOfSeed = true;
            const Clock::time_point end = Clock::now() + bounds.time;
            for (std::uint64_t run = 0; run < bounds.schedules && Clock::now() < end; ++run) {
                record.seed = seed + run;
                RandomPriorities chooser(record.seed, length);
                engine.Run(mScenario.body, mScenario.limits, chooser);
            }
        },
        bounds);
}

Explorer::Result Explorer::Replay(const std::string& text) const {
    Choices choices;
    if (!choices.Parse(text)) {
        Result result;
        result.hasFailed = true;
        result.report = "not a list of choices: " + text + "\n";
        return result;
    }
    return RunInChild(
        [&](Record& record) {
            Engine engine(record);
            Choices none;
            engine.Run(mScenario.body, mScenario.limits, none);
            record.schedules = 0;
            engine.Run(mScenario.body, mScenario.limits, choices);
            record.isComplete = true;
        },
        {});
}

Explorer::Result Explorer::RunInChild(const std::function<void(Record&)>& explore,
                                      const Bounds& bounds) const {
    void* const memory =
        mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::bad_alloc();
    }
    const auto unmap = [](Record* record) { munmap(record, sizeof(Record)); };
    const std::unique_ptr<Record, decltype(unmap)> record(new (memory) Record, unmap);
    const Clock::time_point begin = Clock::now();
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        static_cast<void>(prctl(PR_SET_PDEATHSIG, SIGKILL));
        static_cast<void>(prctl(PR_SET_DUMPABLE, 0));
        StayOnOneProcessor();
        explore(*record);
        _exit(0);
    }
    Result result;
    int status = -1;
    const int childFd = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
    pollfd ended{childFd, POLLIN, 0};
    const auto patience = std::min<std::chrono::milliseconds>(bounds.time + PATIENCE, std::chrono::hours(24));
    const bool isHung = poll(&ended, 1, static_cast<int>(patience.count())) == 0;
    if (isHung) {
        static_cast<void>(kill(child, SIGKILL));
    }
    static_cast<void>(waitpid(child, &status, 0));
    close(childFd);

    result.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    result.schedules = record->schedules;
    result.steps = record->allSteps;
    result.mostChoices = record->mostChoices;
    result.isComplete = record->isComplete;
    result.fault = record->fault;
    result.hasFailed = isHung || !WIFEXITED(status) || WEXITSTATUS(status) != 0;
    result.choices = Choices({record->choices.data(), record->choiceCount}).GetText();
    std::string end = "ended";
    if (isHung) {
        end = "hung: a thread waits where the engine does not see it";
    } else if (WIFSIGNALED(status)) {
        end = std::string("crashed by SIG") + sigabbrev_np(WTERMSIG(status));
    } else if (result.fault != Record::Fault::None) {
        end = std::string(NameOf(result.fault)) + ": " + record->text.data();
    } else if (result.hasFailed) {
        end = "exited with " + std::to_string(WEXITSTATUS(status));
    }
    result.report = Print(*record, end);
    return result;
}

std::string Explorer::Print(const Record& record, const std::string& end) const {
    std::map<const void*, std::string> objects;
    std::map<Action, unsigned> counts;
    const auto nameObject = [&](const Step& step) -> std::string {
        switch (step.action) {
            case Action::Create:
            case Action::Join:
            case Action::Kill:
            case Action::Read:
            case Action::Write:
            case Action::Poll:
                return " " + std::to_string(reinterpret_cast<std::intptr_t>(step.object));
            default:
                break;
        }
        if (step.object == nullptr) {
            return "";
        }
        std::string& name = objects[step.object];
        if (name.empty()) {
            name = "#" + std::to_string(objects.size());
        }
        return " " + name;
    };
    std::string text = std::string(mScenario.name) + ", schedule " + std::to_string(record.schedules) +
                       (record.isOfSeed ? ", seed " + std::to_string(record.seed) : "") + "\n";
    const std::size_t kept = std::min(record.stepCount, Record::MOST_STEPS);
    const std::size_t first = record.stepCount - std::min(kept, MOST_LINES);
    if (first > 0) {
        text += "  (" + std::to_string(first) + " steps before)\n";
    }
    for (std::size_t number = record.stepCount - kept; number < record.stepCount; ++number) {
        const Step& step = record.steps[number % Record::MOST_STEPS];
        std::string what = std::string(NameOf(step.action)) + nameObject(step);
        switch (step.kind) {
            case Step::Kind::Reaches:
                break;
            case Step::Kind::Runs:
                what = "-- goes on";
                break;
            case Step::Kind::TimesOut:
                what = "-- its time is over";
                break;
            case Step::Kind::Spurious:
                what = "-- wakes for no reason";
                break;
            case Step::Kind::TimerExpires:
                what = "-- its timer expires";
                break;
        }
        if (number < first) {
            continue;
        }
        char line[512];
        const auto& name = record.names[step.thread];
        char choice[24] = "";
        if (step.isChoice) {
            std::snprintf(choice, sizeof choice, "%u:%u", step.choice,
                          static_cast<unsigned>(record.choices[step.choice]));
        }
        std::snprintf(line, sizeof line, "  %8s %10.3f s  %2u %-14s %-22s %s\n", choice,
                      static_cast<double>(step.now) / 1e9, static_cast<unsigned>(step.thread), name.data(),
                      what.c_str(), PlaceOf(step.caller).c_str());
        text += line;
    }
    return text + "  " + end + "\n";
}

}  // namespace tern::schedules
