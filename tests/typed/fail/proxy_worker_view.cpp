// fails with: a value for another thread owns what it holds
#include "client_contracts.h"

Future<void> Name(const Proxy<Room1>& room, const std::vector<std::string>& names) {
#ifdef MENDED
    return room.CallFromWorker(Room1::Name, names);
#else
    return room.CallFromWorker(Room1::Name, std::vector<std::string_view>(names.begin(), names.end()));
#endif
}
