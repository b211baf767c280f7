#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "engine.h"

namespace tern::schedules {

/// One situation to be explored. The body is run again and again, each time on its own objects and with
/// another schedule. It makes its threads as any program does, and says what has to hold by Promise. What
/// it leaves behind in the process must not change what the next run does.
struct Scenario {
    const char* name;
    const char* about;
    void (*body)();
    Engine::Limits limits = {};
    /// Of the schedules within the bound, in the suite.
    std::size_t suiteSchedules = 20000;
    /// Schedules that found something once, as texts of choices.
    std::vector<const char*> kept = {};
    /// Put in on purpose: the self-test demands that it is found, as one of these.
    std::vector<Record::Fault> expected = {};

    /// All that there are, in the order of their files.
    static std::vector<Scenario>& All();
};

/// Puts a scenario into the list; see TERN_SCENARIO.
struct Registration {
    explicit Registration(Scenario scenario) { Scenario::All().push_back(std::move(scenario)); }
};

/// The run fails, as a broken promise, unless it is kept.
void Promise(bool isKept, const char* promise);
/// A point where threads may meet in the scenario's own code, as at a plain atomic.
void Meet();
/// The name of the calling thread in a printed schedule.
void Call(const char* name);
/// The calling thread need not have ended at the end of the run: what waits then is ended by pthread_exit(3).
void MayStay();

/// From here to the end of the block something is being stopped: if it cannot end, or needs more time than
/// allowed to pass although nobody has anything to do, it is a missed stop.
class Stopping {
public:
    explicit Stopping(std::int64_t milliseconds = 0);
    ~Stopping();
    Stopping(const Stopping&) = delete;
    Stopping& operator=(const Stopping&) = delete;

private:
    std::int64_t mLimit;
};

}  // namespace tern::schedules

/// The body follows: TERN_SCENARIO(pool_stop, "what is explored") { ... }. More members of Scenario may stand
/// behind the text, as `.limits = {...}`.
#define TERN_SCENARIO(id, text, ...)                                                  \
    static void Body_##id();                                                          \
    static const tern::schedules::Registration registration_##id(                     \
        {.name = #id, .about = text, .body = &Body_##id __VA_OPT__(, ) __VA_ARGS__}); \
    static void Body_##id()
