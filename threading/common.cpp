#include <tern/threading/common.h>

namespace mwl::Threading {

const std::string Common::mLogger = "Threading";

}  // namespace mwl::Threading
