// fails with: MemberOf
#include <tern/typed/blocking_proxy.h>

#include "client_contracts.h"

Outcome<void> Cool(const BlockingProxy<Room1>& room) {
#ifdef MENDED
    return room.Call(Room1::Heat, 5U);
#else
    return room.Call(Other1::Cool, 5U);
#endif
}
