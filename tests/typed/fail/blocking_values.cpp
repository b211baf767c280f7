// fails with: the values are not of the types of the method's arguments
#include <tern/typed/blocking_proxy.h>

#include "client_contracts.h"

Outcome<void> Heat(const BlockingProxy<Room1>& room) {
#ifdef MENDED
    return room.Call(Room1::Heat, 5U);
#else
    return room.Call(Room1::Heat, 5);
#endif
}
