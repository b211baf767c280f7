// fails with: the value is not of the property's type
#include "client_contracts.h"

Call<void> Set(const Proxy<Room1>& room) {
#ifdef MENDED
    return room.Set(Room1::Target, 2.0);
#else
    return room.Set(Room1::Target, 2);
#endif
}
