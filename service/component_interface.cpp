#include <tern/service/component_interface.h>

namespace mwl::DBusService {

ComponentInterface::~ComponentInterface() = default;

}  // namespace mwl::DBusService
