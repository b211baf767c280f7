// With a counter for each of this file's probes.
#define _SDT_HAS_SEMAPHORES 1  // NOLINT(bugprone-reserved-identifier): what sys/sdt.h calls it
#include "typed/call_probe.h"

#include <cstdio>

#ifdef TERN_HAS_STATIC_PROBES
// In the section in which tracers expect them.
extern "C" {
__attribute__((section(".probes"))) volatile unsigned short tern_call_began_semaphore = 0;
__attribute__((section(".probes"))) volatile unsigned short tern_call_ended_semaphore = 0;
}
#endif

namespace mwl::Typed {

CallProbe::CallProbe(const void* object, const char* interface, const char* member,
                     const char* sender) noexcept
    : mObject(object), mSender(sender) {
    static_cast<void>(std::snprintf(mName.data(), mName.size(), "%s.%s", interface, member));
    TERN_PROBE_AND(call_began, mObject, mName.data(), mSender);
}

CallProbe::~CallProbe() {
    TERN_PROBE_AND(call_ended, mObject, mName.data(), mSender);
}

}  // namespace mwl::Typed
