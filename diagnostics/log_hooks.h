#pragma once

#include <tern-basic-log/root_logger.h>

#include <cstddef>

namespace mwl::Log {

// The bundled logger's own (tern-basic-log/observer.h), which a device maker's logger lacks: null then.
[[gnu::weak]] void SetObserver(void (*observer)(TernLogLevel level, const char* text,
                                                std::size_t length) noexcept) noexcept;
[[gnu::weak]] void SetThreshold(unsigned char level) noexcept;

}  // namespace mwl::Log
