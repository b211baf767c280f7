// fails with: this member is not a property
#include <tern/typed/property_cache.h>

#include "two_contracts.h"

bool IsLevel(const PropertyChanges<Room1>& changes) {
#ifdef MENDED
    return changes.Has<Room1::Level>();
#else
    return changes.Has<Room1::Hot>();
#endif
}
