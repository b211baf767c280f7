#include "diagnostics/ticks.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <string_view>

#include "foundation/unique_fd.h"

#if defined(__x86_64__)
#include <cpuid.h>
#endif

namespace mwl::Diagnostics {

#if defined(__x86_64__)
bool HasConstantCounter() noexcept {
    constexpr unsigned POWER_LEAF = 0x80000007;
    constexpr unsigned INVARIANT_TSC = 1U << 8U;
    unsigned a = 0;
    unsigned b = 0;
    unsigned c = 0;
    unsigned d = 0;
    if (__get_cpuid(POWER_LEAF, &a, &b, &c, &d) == 0 || (d & INVARIANT_TSC) == 0) {
        return false;
    }
    // The kernel compares it with other clocks and gives it up where it cannot be trusted.
    const UniqueFd file(
        open("/sys/devices/system/clocksource/clocksource0/current_clocksource", O_RDONLY | O_CLOEXEC));
    std::array<char, 16> source{};
    const ssize_t length = file.Get() < 0 ? -1 : read(file.Get(), source.data(), source.size());
    return length > 0 &&
           std::string_view(source.data(), static_cast<std::size_t>(length)).substr(0, 4) == "tsc\n";
}
#elif defined(__aarch64__)
bool HasConstantCounter() noexcept {
    return true;  // by the architecture
}
#else
bool HasConstantCounter() noexcept {
    return false;
}
#endif

}  // namespace mwl::Diagnostics
