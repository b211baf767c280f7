// fails with: no matching
#include "client_contracts.h"

Call<int> Level(const Proxy<Room1>& room) {
#ifdef MENDED
    return room.Get(Room1::Level);
#else
    return room.Call(Room1::Level);
#endif
}
