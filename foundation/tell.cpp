#include "foundation/tell.h"

#include <cerrno>

namespace mwl::Tell {

constinit std::atomic<const Listener*> Detail::gListener{nullptr};

const Listener* SetListener(const Listener* listener) noexcept {
    if (listener != nullptr && (listener->version != Listener::VERSION || listener->onEvent == nullptr)) {
        return Detail::gListener.load(std::memory_order_acquire);
    }
    return Detail::gListener.exchange(listener, std::memory_order_acq_rel);
}

void Detail::Pass(Event event, const void* object, std::uint64_t value, const char* name) noexcept {
    const Listener* const listener = gListener.load(std::memory_order_acquire);
    if (listener != nullptr) {
        listener->onEvent(event, object, value, name);
    }
}

}  // namespace mwl::Tell
