#include "intercept.h"

#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <new>
#include <stdexcept>

#include "catalogue.h"
#include "imports.h"

namespace tern::test {

namespace {

constexpr unsigned MOST_FUNCTIONS = 256;
constexpr unsigned MOST_SEEN = 20000;

/// In memory that forked processes share.
struct Shared {
    std::atomic<bool> on{false};
    std::atomic<bool> met{false};
    std::atomic<unsigned> seenCount{0};
    std::array<std::array<std::atomic<unsigned>, 2>, MOST_FUNCTIONS> counts{};
    std::array<SeenCall, MOST_SEEN> seen{};
};

Shared* gShared = nullptr;
pid_t gHome = 0;
const CallPoint* gArmed = nullptr;
const Failure* gFailure = nullptr;
/// Whose calls count: with the logger's own, one message would give as many cases as the whole scenario.
bool gWatchLogger = false;

AddressRange gLogger;

/// The stand-in for a function, which then knows the function; null when it is not in the catalogue.
void* StandInFor(const char* name, void* function) {
    const std::string plain = PlainName(name);
    for (const Faultable& faultable : Catalogue()) {
        if (plain == faultable.name) {
            *faultable.real = function;
            return faultable.standIn;
        }
    }
    return nullptr;
}

/// Takes the place of dlsym(3): a function that our libraries look up by name is one of the catalogue as
/// well.
void* LookUp(void* handle, const char* name) {
    void* const function = dlsym(handle, name);
    void* const standIn = StandInFor(name, function);
    if (standIn == nullptr && ReasonForExemption(name) == nullptr) {
        printf("%s is looked up, and neither in the catalogue nor exempt\n", name);
        fflush(stdout);
        _exit(1);
    }
    return standIn != nullptr ? standIn : function;
}

void Redirect(const Import& import) {
    if (std::string(import.name) == "dlsym") {
        *import.slot = reinterpret_cast<void*>(&LookUp);
        return;
    }
    void* const standIn = StandInFor(import.name, dlsym(RTLD_DEFAULT, import.name));
    if (standIn != nullptr) {
        *import.slot = standIn;
    }
}

}  // namespace

void Intercept::Install() {
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED || Catalogue().size() > MOST_FUNCTIONS) {
        throw std::runtime_error("no memory for the counts");
    }
    gShared = new (memory) Shared;
    unsigned number = 0;
    for (const Faultable& function : Catalogue()) {
        *function.number = number++;
    }
    for (const std::string& library : OUR_LIBRARIES) {
        ForEachImport(library, Redirect);
    }
    // A stream of the C++ library reads its file on our behalf.
    ForEachImport("libstdc++.so", [](const Import& import) {
        const std::string plain = PlainName(import.name);
        if (plain == "fopen" || plain == "read") {
            Redirect(import);
        }
    });
    gLogger = RangeOf(LOGGER_LIBRARY);
}

void Intercept::Begin(const CallPoint* armed, const Failure* failure) {
    gHome = getpid();
    gArmed = armed;
    gFailure = failure;
    gShared->on = false;
    gShared->met = false;
    gShared->seenCount = 0;
    for (auto& counts : gShared->counts) {
        counts[0] = 0;
        counts[1] = 0;
    }
}

void Intercept::Switch(bool on) {
    gShared->on = on;
}

void Intercept::WatchLogger(bool logger) {
    gWatchLogger = logger;
}

bool Intercept::WasMet() {
    return gShared->met;
}

unsigned Intercept::SeenCount() {
    return gShared->seenCount < MOST_SEEN ? gShared->seenCount.load() : MOST_SEEN;
}

SeenCall Intercept::Seen(unsigned index) {
    return gShared->seen[index];
}

const Failure* Intercept::Take(unsigned function, void* site) noexcept {
    if (!gShared->on.load(std::memory_order_acquire) || gLogger.Holds(site) != gWatchLogger) {
        return nullptr;
    }
    const bool inFork = getpid() != gHome;
    const CallPoint point{function, inFork, gShared->counts[function][inFork ? 1 : 0]++};
    const unsigned index = gShared->seenCount++;
    if (index < MOST_SEEN) {
        gShared->seen[index] = {point, reinterpret_cast<std::uintptr_t>(site)};
    }
    if (gArmed != nullptr && *gArmed == point) {
        gShared->met = true;
        return gFailure;
    }
    return nullptr;
}

}  // namespace tern::test
