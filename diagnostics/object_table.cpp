#include "diagnostics/object_table.h"

namespace mwl::Diagnostics {

const void* ObjectTable::Gone() noexcept {
    static constexpr char PLACE = 0;  // an address that no object has
    return &PLACE;
}

ObjectTable::Row* ObjectTable::Take(const void* object, KnownObjects::Kind kind,
                                    std::uint16_t name) noexcept {
    Row* row = Find(object);
    if (row == nullptr) {
        std::size_t place = PlaceOf(object);
        for (std::size_t i = 0; i < PROBES && row == nullptr; ++i, place = (place + 1) % ROWS) {
            const void* const found = mRows[place].object.load(std::memory_order_relaxed);
            if (found == nullptr || found == Gone()) {
                row = &mRows[place];
            }
        }
    }
    if (row == nullptr) {
        return nullptr;
    }
    for (std::atomic<std::uint64_t>* const figure :
         {&row->asked, &row->begun, &row->done, &row->longest, &row->largest}) {
        figure->store(0, std::memory_order_relaxed);
    }
    row->name.store(name, std::memory_order_relaxed);
    row->kind.store(kind, std::memory_order_relaxed);
    row->object.store(object, std::memory_order_release);
    return row;
}

void ObjectTable::Clear() noexcept {
    for (Row& row : mRows) {
        // Memory that nobody has written to takes none.
        if (row.object.load(std::memory_order_relaxed) != nullptr) {
            row.object.store(nullptr, std::memory_order_relaxed);
        }
    }
}

void ObjectTable::GiveBack(const void* object) noexcept {
    Row* const row = Find(object);
    if (row == nullptr) {
        return;
    }
    const std::size_t place = static_cast<std::size_t>(row - mRows.data());
    const bool isLast = mRows[(place + 1) % ROWS].object.load(std::memory_order_relaxed) == nullptr;
    row->object.store(isLast ? nullptr : Gone(), std::memory_order_release);
}

}  // namespace mwl::Diagnostics
