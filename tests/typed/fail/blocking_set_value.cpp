// fails with: the value is not of the property's type
#include <tern/typed/blocking_proxy.h>

#include "client_contracts.h"

Outcome<void> Set(const BlockingProxy<Room1>& room) {
#ifdef MENDED
    return room.Set(Room1::Target, 5.0);
#else
    return room.Set(Room1::Target, 5);
#endif
}
