#include "scenario.h"

namespace tern::schedules {

namespace {

constexpr std::int64_t NANOSECONDS_PER_MILLISECOND = 1000000;

}  // namespace

std::vector<Scenario>& Scenario::All() {
    static std::vector<Scenario> all;
    return all;
}

void Promise(bool isKept, const char* promise) {
    if (!isKept) {
        Engine::Get()->Fail(Record::Fault::Promise, promise);
    }
}

void Meet() {
    Engine::Get()->Mark(nullptr, __builtin_return_address(0));
}

void Call(const char* name) {
    Engine::Get()->SetName(name);
}

void MayStay() {
    Engine::Get()->LetStay(true);
}

Stopping::Stopping(std::int64_t milliseconds)
    : mLimit(Engine::Get()->IdleTime() + milliseconds * NANOSECONDS_PER_MILLISECOND) {
    Engine::Get()->SetStopping(true);
}

Stopping::~Stopping() {
    if (Engine::Get()->IdleTime() > mLimit) {
        Engine::Get()->Fail(
            Record::Fault::MissedStop,
            "it stopped only because " +
                std::to_string((Engine::Get()->IdleTime() - mLimit) / NANOSECONDS_PER_MILLISECOND) +
                " ms more than allowed passed in which nobody had anything to do");
    }
    Engine::Get()->SetStopping(false);
}

}  // namespace tern::schedules
