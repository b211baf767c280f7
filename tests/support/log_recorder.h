#pragma once

#include <string>

namespace tern::test {

/// Is given each captured message as it was before its arguments were filled in. It is called under the
/// capture's lock and must not log.
using LogRecorder = void (*)(int level, const std::string& logger, const char* format);
/// From now on, in the children that are forked later too. For the list of this project's own messages.
void SetLogRecorder(LogRecorder recorder);

}  // namespace tern::test
