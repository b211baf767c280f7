#include <tern/timer/timer_interface.h>

namespace mwl::Timer {

// Here, so that the virtual table exists once, in the library.
TimerInterface::~TimerInterface() = default;

}  // namespace mwl::Timer
