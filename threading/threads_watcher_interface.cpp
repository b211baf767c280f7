#include <tern/threading/threads_watcher_interface.h>

namespace mwl::Threading {

ThreadsWatcherInterface::~ThreadsWatcherInterface() = default;

}  // namespace mwl::Threading
