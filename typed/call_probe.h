#pragma once

#include <array>
#include <cstddef>

#include "platform/static_probe.h"

#ifdef TERN_HAS_STATIC_PROBES
// Counted up by tracers while they look at the probe; their names are what makes them the probes' own.
extern "C" {
extern volatile unsigned short tern_call_began_semaphore __attribute__((visibility("hidden")));
extern volatile unsigned short tern_call_ended_semaphore __attribute__((visibility("hidden")));
}
#endif

namespace mwl::Typed {

/// The static probes call_began and call_ended, around the handler of a member: created before it runs,
/// destroyed after it. Their arguments: the interface's address, "interface.member", and who asks, by unique
/// name. The text has to be composed, so use this only while somebody looks.
class CallProbe {
public:
    /// Whether a tracer looks at one of the two. Never without static probes.
    static bool IsWanted() noexcept {
#ifdef TERN_HAS_STATIC_PROBES
        return __builtin_expect((tern_call_began_semaphore | tern_call_ended_semaphore) != 0, 0);
#else
        return false;
#endif
    }

    /// Object and sender are borrowed; the object's address is not followed.
    CallProbe(const void* object, const char* interface, const char* member, const char* sender) noexcept;
    ~CallProbe();
    CallProbe(const CallProbe&) = delete;
    CallProbe& operator=(const CallProbe&) = delete;

private:
    /// Neither of the two parts of a name is longer on a bus.
    static constexpr std::size_t LONGEST_PART = 255;

    // Unused where there are no probes.
    [[maybe_unused]] const void* const mObject;
    [[maybe_unused]] const char* const mSender;
    std::array<char, 2 * LONGEST_PART + 2> mName;
};

}  // namespace mwl::Typed
