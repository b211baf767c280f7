#include <tern/queued_processings/executor_interface.h>

namespace mwl::QueuedProcessings {

// Here, so that the virtual table exists once, in the library.
ExecutorInterface::~ExecutorInterface() = default;

}  // namespace mwl::QueuedProcessings
