// fails with: nobody takes what the handler of a call returns
#include "client_contracts.h"

Pending Ask(const Proxy<Room1>& room) {
#ifdef MENDED
    return room.Get(Room1::Level).Then([](const Outcome<int>& outcome) {
        static_cast<void>(outcome.IsOk());
    });
#else
    return room.Get(Room1::Level).Then([](const Outcome<int>& outcome) { return outcome.IsOk(); });
#endif
}
