#pragma once

namespace tern::test {

/// Runs the sweep over scenarios that are wrong on purpose, and prints what it does not notice. True when it
/// notices everything.
bool SweepNoticesEverything();

}  // namespace tern::test
