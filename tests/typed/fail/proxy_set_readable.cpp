// fails with: no matching
#include "client_contracts.h"

Call<void> Set(const Proxy<Room1>& room) {
#ifdef MENDED
    return room.Set(Room1::Target, 2.0);
#else
    return room.Set(Room1::Level, 2);
#endif
}
