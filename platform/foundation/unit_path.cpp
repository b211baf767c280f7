#include <tern-foundation/unit_path.h>

#include "platform/static_text.h"

TERN_STATIC_TEXT(mwl::Unit::Path::MWL_LIB, _ZN3mwl4Unit4Path7MWL_LIB, TERN_MWL_LIB_DIR);
TERN_STATIC_TEXT(mwl::Unit::Path::ETC, _ZN3mwl4Unit4Path3ETC, TERN_ETC_DIR);
