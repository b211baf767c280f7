#include "fault.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>
#include <thread>
#include <vector>

namespace soak {

namespace {

constexpr std::size_t LEAK_BYTES = 65536;
constexpr std::chrono::seconds HOLD_UP{6};

/// Written, so that it is really taken from the system.
void LeakMemory() {
    auto* const leaked = static_cast<char*>(malloc(LEAK_BYTES));
    if (leaked != nullptr) {
        std::memset(leaked, 1, LEAK_BYTES);
        static std::vector<char*> forgotten;
        forgotten.push_back(leaked);
    }
}

[[noreturn]] void SleepForEver() {
    for (;;) {
        pause();
    }
}

}  // namespace

Fault::Fault(const std::string& name) {
    const std::map<std::string, Kind> kinds{
        {"", Kind::Nothing},      {"memory", Kind::Memory},     {"descriptor", Kind::Descriptor},
        {"thread", Kind::Thread}, {"reply", Kind::Reply},       {"answer", Kind::Answer},
        {"signal", Kind::Signal}, {"watchdog", Kind::Watchdog}, {"crash", Kind::Crash},
        {"status", Kind::Status}, {"hang", Kind::Hang},         {"keep", Kind::Keep}};
    const auto found = kinds.find(name);
    if (found == kinds.end()) {
        throw std::invalid_argument("there is no fault '" + name + "'");
    }
    mKind = found->second;
}

Fault::Answer Fault::OnCall() {
    const std::uint64_t call = ++mCalls;
    const auto isEvery = [call](std::uint64_t period) { return call % period == 0; };
    switch (mKind) {
        case Kind::Memory:
            LeakMemory();
            break;
        case Kind::Descriptor:
            if (isEvery(10)) {
                static_cast<void>(dup(STDERR_FILENO));
            }
            break;
        case Kind::Thread:
            if (isEvery(50)) {
                std::thread(SleepForEver).detach();
            }
            break;
        case Kind::Reply:
            return isEvery(100) ? Answer::None : Answer::Right;
        case Kind::Answer:
            return isEvery(100) ? Answer::Wrong : Answer::Right;
        case Kind::Watchdog:
            if (call == 100) {
                std::this_thread::sleep_for(HOLD_UP);
            }
            break;
        case Kind::Crash:
            if (call == 100) {
                abort();
            }
            break;
        case Kind::Nothing:
        case Kind::Signal:
        case Kind::Keep:
        case Kind::Status:
        case Kind::Hang:
            break;
    }
    return Answer::Right;
}

bool Fault::IsForgotten(std::uint64_t number) const {
    return mKind == Kind::Keep && number >= 3;
}

bool Fault::IsLeftOut(std::uint64_t number) const {
    return mKind == Kind::Signal && number % 100 == 0;
}

int Fault::ExitStatus(int status) const {
    if (mKind == Kind::Hang) {
        SleepForEver();
    }
    return mKind == Kind::Status ? EXIT_SUCCESS : status;
}

}  // namespace soak
