// fails with: the handler of a call takes its outcome
#include "client_contracts.h"

Pending Ask(const Proxy<Room1>& room) {
#ifdef MENDED
    return room.Get(Room1::Level).Then([](Outcome<int>) {});
#else
    return room.Get(Room1::Level).Then([](int) {});
#endif
}
