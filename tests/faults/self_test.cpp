#include "self_test.h"

#include <fcntl.h>
#include <tern/service/message_pipe.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <thread>

#include "catalogue.h"
#include "stage.h"
#include "sweep.h"

namespace tern::test {

namespace {

/// The library's part in all of them; false when the call that fails is met.
bool MakePipe(Stage& stage) {
    bool made = false;
    mw::tern::MessagePipe pipe;
    stage.Sweep([&] { made = pipe.Initialize() == mw::tern::StatusCode::Ok; });
    return made;
}

/// Logged by the library, and all is well.
void RunWell(Stage& stage) {
    static_cast<void>(MakePipe(stage));
}

void RunLeakingMemory(Stage& stage) {
    if (!MakePipe(stage)) {
        // Not through a variable of this function, in which a leak checker would find it.
        static_cast<void>(*new (std::nothrow) volatile char[100]);
    }
}

void RunLeakingDescriptor(Stage& stage) {
    if (!MakePipe(stage)) {
        static_cast<void>(open("/dev/null", O_RDONLY | O_CLOEXEC));
    }
}

void RunLeakingThread(Stage& stage) {
    if (!MakePipe(stage)) {
        std::thread([] { pause(); }).detach();
    }
}

void RunLeakingChild(Stage& stage) {
    if (!MakePipe(stage)) {
        if (fork() == 0) {
            _exit(0);
        }
    }
}

void RunDying(Stage& stage) {
    if (!MakePipe(stage)) {
        abort();
    }
}

void RunHanging(Stage& stage) {
    if (!MakePipe(stage)) {
        while (true) {
            pause();
        }
    }
}

void RunLasting(Stage& stage) {
    static bool broken = false;
    broken = !MakePipe(stage) || broken;
    stage.Expect(!broken, "what was done before");
}

void RunBroken(Stage& stage) {
    static_cast<void>(MakePipe(stage));
    stage.Expect(false, "anything");
}

struct Expectation {
    Scenario scenario;
    Outcome outcome;
};

const Expectation EXPECTATIONS[] = {
    {{"well", RunWell}, Outcome::Reported},
    {{"leaking-memory", RunLeakingMemory}, Outcome::Leftover},
    {{"leaking-descriptor", RunLeakingDescriptor}, Outcome::Leftover},
    {{"leaking-thread", RunLeakingThread}, Outcome::Leftover},
    {{"leaking-child", RunLeakingChild}, Outcome::Leftover},
    {{"dying", RunDying}, Outcome::Died},
    {{"hanging", RunHanging}, Outcome::Hung},
    {{"lasting", RunLasting}, Outcome::Lasting},
    {{"broken", RunBroken}, Outcome::Broken},
};

/// The first pipe2 of a scenario, failing.
Case FirstCase(const Scenario& scenario) {
    unsigned function = 0;
    for (; std::string(Catalogue()[function].name) != "pipe2"; ++function) {
    }
    return {&scenario, {function, false, 0}, Catalogue()[function].failures.data()};
}

}  // namespace

bool SweepNoticesEverything() {
    constexpr unsigned LIMIT_SECONDS = 6 * SLOWNESS;
    Sweep sweep(LIMIT_SECONDS);
    bool good = true;
    for (const Expectation& expectation : EXPECTATIONS) {
        const Outcome outcome = sweep.Run(FirstCase(expectation.scenario));
        if (outcome != expectation.outcome) {
            printf("%s came out as %s, not as %s\n", expectation.scenario.name, NameOf(outcome),
                   NameOf(expectation.outcome));
            good = false;
        }
    }
    return good;
}

}  // namespace tern::test
