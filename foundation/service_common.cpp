#include <tern/foundation/service_common.h>

namespace mw::tern {

const std::string ServiceCommon::mLogger = "Service";

}  // namespace mw::tern
