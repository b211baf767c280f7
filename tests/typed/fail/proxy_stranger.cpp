// fails with: MemberOf
#include "client_contracts.h"

Call<void> Heat(const Proxy<Room1>& room) {
#ifdef MENDED
    return room.Call(Room1::Heat, 5U);
#else
    return room.Call(Other1::Cool, 5U);
#endif
}
