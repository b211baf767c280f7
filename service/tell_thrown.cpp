#include <array>
#include <cstddef>
#include <cstdio>

#include "foundation/tell.h"
#include "service/thrown.h"

namespace mw::tern {

namespace {

/// Type and text are cut where they are longer than anybody reads.
constexpr std::size_t LONGEST = 512;

}  // namespace

void TellThrown(const Thrown& thrown) noexcept {
    constexpr const void* NO_OBJECT = nullptr;
    std::array<char, LONGEST> line{};
    static_cast<void>(std::snprintf(line.data(), line.size(), "%s: %s", thrown.Type(), thrown.Text()));
    TERN_TELL_NAMED(Thrown, thrown, NO_OBJECT, 0, line.data());
}

}  // namespace mw::tern
