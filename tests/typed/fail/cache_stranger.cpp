// fails with: this is not a member of the contract
#include <tern/typed/property_cache.h>

#include "two_contracts.h"

int LevelOf(const PropertyCache<Room1>& cache) {
#ifdef MENDED
    return cache.Get<Room1::Level>().value_or(0);
#else
    return cache.Get<Other1::Level>().value_or(0);
#endif
}
