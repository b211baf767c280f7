#pragma once

#include <sys/mman.h>

#include <array>
#include <new>
#include <type_traits>

#include "foundation/known_objects.h"

namespace mwl::Diagnostics {

/// Room for a copy of all known objects. Pages of its own: of the heap these 20 KiB would stay with the
/// process.
class KnownCopy {
public:
    using All = std::array<KnownObjects::Known, KnownObjects::MOST>;

    /// Raises std::bad_alloc.
    KnownCopy()
        : mPages(mmap(nullptr, sizeof(All), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
        if (mPages == MAP_FAILED) {
            throw std::bad_alloc();
        }
        mAll = new (mPages) All();
    }
    ~KnownCopy() { static_cast<void>(munmap(mPages, sizeof(All))); }  // cannot fail: it is all of a mapping
    KnownCopy(const KnownCopy&) = delete;
    KnownCopy& operator=(const KnownCopy&) = delete;

    All& operator*() const noexcept { return *mAll; }

private:
    static_assert(std::is_trivially_destructible_v<All>);

    void* const mPages;
    All* mAll = nullptr;
};

}  // namespace mwl::Diagnostics
