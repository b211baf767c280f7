#include <tern/threading/threads_monitor_interface.h>

namespace mwl::Threading {

ThreadsMonitorInterface::~ThreadsMonitorInterface() = default;

}  // namespace mwl::Threading
