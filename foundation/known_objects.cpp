#include "foundation/known_objects.h"

#include <pthread.h>

#include <algorithm>
#include <mutex>

#include "foundation/tell.h"

namespace mwl::KnownObjects {

namespace {

// Nothing of it is ever destroyed: objects may outlive main.
constinit std::mutex gMutex;
constinit std::array<Known, MOST> gRows{};  ///< guarded by gMutex, like the rest
constinit std::size_t gCount = 0;
constinit std::uint64_t gMissed = 0;

// A child of a process with several threads finds the lock free.
[[maybe_unused]] const int gAtFork =
    pthread_atfork([] { gMutex.lock(); }, [] { gMutex.unlock(); }, [] { gMutex.unlock(); });

Known* Find(Kind kind, const void* object) noexcept {
    for (std::size_t i = gCount; i > 0; --i) {
        if (gRows[i - 1].object == object && gRows[i - 1].kind == kind) {
            return &gRows[i - 1];
        }
    }
    return nullptr;
}

bool RemoveOne(Kind kind, const void* object) noexcept {
    Known* const row = Find(kind, object);
    if (row == nullptr) {
        return false;
    }
    TERN_TELL(ObjectGone, object_gone, object, kind);
    std::move(row + 1, gRows.data() + gCount, row);
    --gCount;
    return true;
}

/// As many bytes of the text as fit, without a part of a character.
std::size_t FittingLength(std::string_view text) noexcept {
    std::size_t length = std::min(text.size(), Known::LONGEST_NAME);
    while (length > 0 && length < text.size() &&
           (static_cast<unsigned char>(text[length]) & 0xC0U) == 0x80U) {
        --length;
    }
    return length;
}

}  // namespace

void Add(const Known& known, std::string_view name) noexcept {
    const std::lock_guard lock(gMutex);
    Known* row = known.kind == Kind::Supervised ? nullptr : Find(known.kind, known.object);
    if (row == nullptr) {
        if (gCount == MOST) {
            ++gMissed;
            return;
        }
        row = &gRows[gCount++];
    }
    *row = known;
    row->name[name.copy(row->name.data(), FittingLength(name))] = '\0';
    TERN_TELL_NAMED(ObjectMade, object_made, row->object, row->kind, row->name.data());
}

void Remove(Kind kind, const void* object) noexcept {
    const std::lock_guard lock(gMutex);
    RemoveOne(kind, object);
}

void RemoveAll(Kind kind, const void* object) noexcept {
    const std::lock_guard lock(gMutex);
    while (RemoveOne(kind, object)) {
    }
}

std::size_t Copy(std::array<Known, MOST>& all) noexcept {
    return CopyAnd(
        all, [](void*) noexcept {}, nullptr);
}

std::size_t CopyAnd(std::array<Known, MOST>& all, void (*begin)(void*) noexcept, void* argument) noexcept {
    const std::lock_guard lock(gMutex);
    std::copy_n(gRows.begin(), gCount, all.begin());
    begin(argument);
    return gCount;
}

std::uint64_t GetMissed() noexcept {
    const std::lock_guard lock(gMutex);
    return gMissed;
}

}  // namespace mwl::KnownObjects
