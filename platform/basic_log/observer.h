#pragma once

#include <tern-basic-log/observer.h>

namespace mwl::Log {

/// Gives the observer, if there is one, a message that is about to be written.
void Observe(TernLogLevel level, const char* text, std::size_t length) noexcept;

}  // namespace mwl::Log
