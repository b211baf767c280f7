#include <tern/threading/common.h>

#include "platform/static_text.h"

TERN_STATIC_TEXT(mwl::Threading::Common::mLogger, _ZN3mwl9Threading6Common7mLogger, "Threading");
