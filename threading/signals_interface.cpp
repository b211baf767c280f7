#include <tern/threading/signals_interface.h>

namespace mwl::Threading {

SignalsInterface::~SignalsInterface() = default;

}  // namespace mwl::Threading
