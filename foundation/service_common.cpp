#include <tern/foundation/service_common.h>

#include "platform/static_text.h"

TERN_STATIC_TEXT(mw::tern::ServiceCommon::mLogger, _ZN2mw4tern13ServiceCommon7mLogger, "Service");
