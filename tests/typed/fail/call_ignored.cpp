// fails with: ignoring return
#include "client_contracts.h"

void Heat(const Proxy<Room1>& room) {
#ifdef MENDED
    room.Call(Room1::Heat, 5U).Detach();
#else
    room.Call(Room1::Heat, 5U);
#endif
}
