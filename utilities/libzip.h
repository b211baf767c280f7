#pragma once

namespace mwl::Utilities {

/// Loads libzip unless it is there already; before any of its functions is called. Null, or why it cannot be
/// loaded or lacks a function, and then none may be called. The text is the calling thread's until its next
/// call of dlopen(3) or the like. Thread-safe.
const char* LoadLibzip();

}  // namespace mwl::Utilities
