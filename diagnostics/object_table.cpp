#include "diagnostics/object_table.h"

namespace mwl::Diagnostics {

ObjectTable::Row* ObjectTable::Take(const void* object, KnownObjects::Kind kind,
                                    std::uint16_t name) noexcept {
    Row* row = Find(object);
    const bool isNew = row == nullptr;
    for (std::size_t i = 0; i < ROWS && row == nullptr; ++i) {
        if (mRows[i].object.load(std::memory_order_relaxed) == nullptr) {
            row = &mRows[i];
        }
    }
    if (row == nullptr) {
        return nullptr;
    }
    std::size_t place = PlaceOf(object);
    for (std::size_t i = 0; isNew; ++i, place = (place + 1) % PLACES) {
        const std::uint16_t found = mPlaces[place].load(std::memory_order_relaxed);
        if (found == NONE || found == GONE) {
            break;
        }
        if (i + 1 == PROBES) {
            return nullptr;
        }
    }
    for (std::atomic<std::uint64_t>* const figure :
         {&row->asked, &row->begun, &row->done, &row->longest, &row->largest}) {
        figure->store(0, std::memory_order_relaxed);
    }
    row->name.store(name, std::memory_order_relaxed);
    row->kind.store(kind, std::memory_order_relaxed);
    row->object.store(object, std::memory_order_release);
    if (isNew) {
        mPlaces[place].store(static_cast<std::uint16_t>(row - mRows.data() + 1), std::memory_order_release);
    }
    return row;
}

void ObjectTable::Clear() noexcept {
    for (std::atomic<std::uint16_t>& place : mPlaces) {
        const std::uint16_t number = place.exchange(NONE, std::memory_order_relaxed);
        if (number != NONE && number != GONE) {
            mRows[number - 1U].object.store(nullptr, std::memory_order_relaxed);
        }
    }
}

void ObjectTable::GiveBack(const void* object) noexcept {
    std::uint16_t number = NONE;
    const std::size_t place = FindPlace(object, number);
    if (number == NONE) {
        return;
    }
    const bool isLast = mPlaces[(place + 1) % PLACES].load(std::memory_order_relaxed) == NONE;
    mPlaces[place].store(isLast ? NONE : GONE, std::memory_order_release);
    mRows[number - 1U].object.store(nullptr, std::memory_order_release);
}

}  // namespace mwl::Diagnostics
