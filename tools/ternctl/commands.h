#pragma once

#include "failure.h"
#include "options.h"

namespace ternctl {

/// The commands. Each prints its result and returns what the program ends with, or throws Failure.
ExitStatus RunList(const Options& options);
ExitStatus RunStatus(const Options& options);
ExitStatus RunTop(const Options& options);
ExitStatus RunEvents(const Options& options);
/// Of a process here, without the bus. REQUIRES: options.pid.
ExitStatus RunProcessEvents(const Options& options);
ExitStatus RunLog(const Options& options);
ExitStatus RunWhy(const Options& options);
ExitStatus RunLogLevel(const Options& options);
ExitStatus RunChart(const Options& options);

}  // namespace ternctl
