#include <tern-foundation/unit_path.h>

namespace mwl::Unit::Path {

const std::string MWL_LIB = TERN_MWL_LIB_DIR;
const std::string ETC = TERN_ETC_DIR;

}  // namespace mwl::Unit::Path
