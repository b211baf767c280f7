#include "self_test.h"

#include <fcntl.h>
#include <signal.h>
#include <tern/service/message_pipe.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "catalogue.h"
#include "limits.h"
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

/// However loudly it is told.
void RunViolating(Stage& stage) {
    stage.Demand(MakePipe(stage), "the pipe");
}

void RunBroken(Stage& stage) {
    static_cast<void>(MakePipe(stage));
    stage.Expect(false, "anything");
}

void UseAThread(Stage& stage) {
    stage.Sweep([] { std::thread([] {}).join(); });
}

void UseASignal(Stage& stage) {
    stage.Sweep([&] {
        sigevent nothing{};
        nothing.sigev_notify = SIGEV_NONE;
        timer_t timer{};
        if (stage.Accept(timer_create(CLOCK_MONOTONIC, &nothing, &timer) == 0 ? 0 : 1, "timer_create")) {
            timer_delete(timer);
        }
    });
}

void UseADescriptor(Stage& stage) {
    stage.Sweep([&] {
        const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (stage.Accept(fd >= 0 ? 0 : 1, "open")) {
            close(fd);
        }
    });
}

void UseAPage(Stage& stage) {
    const int fd = open((stage / "file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    stage.Sweep([&] { stage.Accept(write(fd, "", 1) == 1 ? 0 : 1, "write"); });
    close(fd);
}

struct Expectation {
    Scenario scenario;
    Outcome outcome;
};

/// What uses one of the resource, and how it comes out without.
struct LimitExpectation {
    const char* limit;
    Scenario scenario;
    Outcome without;
};

const LimitExpectation LIMIT_EXPECTATIONS[] = {
    {"RLIMIT_NPROC", {"one-thread", UseAThread}, Outcome::Raised},
    {"RLIMIT_SIGPENDING", {"one-signal", UseASignal}, Outcome::Reported},
    {"RLIMIT_NOFILE", {"one-descriptor", UseADescriptor}, Outcome::Reported},
    {"tmpfs", {"one-page", UseAPage}, Outcome::Reported},
};

const Expectation EXPECTATIONS[] = {
    {{"well", RunWell}, Outcome::Reported},
    {{"leaking-memory", RunLeakingMemory}, Outcome::Leftover},
    {{"leaking-descriptor", RunLeakingDescriptor}, Outcome::Leftover},
    {{"leaking-thread", RunLeakingThread}, Outcome::Leftover},
    {{"leaking-child", RunLeakingChild}, Outcome::Leftover},
    {{"violating", RunViolating}, Outcome::Violated},
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
    return {&scenario, {function, false, 0}, Catalogue()[function].failures.data(), nullptr, 0};
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
    for (const LimitExpectation& expectation : LIMIT_EXPECTATIONS) {
        const auto limit = std::find_if(Limits().begin(), Limits().end(), [&](const Limit& one) {
            return std::string(one.name) == expectation.limit;
        });
        for (const unsigned spare : {0U, 1U}) {
            const Outcome expected = spare == 0 ? expectation.without : Outcome::Absorbed;
            const Outcome outcome = sweep.Run({&expectation.scenario, {}, nullptr, &*limit, spare});
            if (outcome == Outcome::Skipped) {
                printf("%s: the system does not permit the limit\n", expectation.limit);
            } else if (outcome != expected) {
                printf("%s with %u to spare came out as %s, not as %s\n", expectation.scenario.name, spare,
                       NameOf(outcome), NameOf(expected));
                good = false;
            }
        }
    }
    return good;
}

}  // namespace tern::test
