#include <tern/queued_processings/component_interface.h>

namespace mwl::QueuedProcessings {

// Here, so that the virtual table exists once, in the library.
ComponentInterface::~ComponentInterface() = default;

}  // namespace mwl::QueuedProcessings
