// fails with: a setter takes the value by value or by const reference
#include "writable_contract.h"

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    int level = 0;
    void Set(int) {}
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Level, &Room::level, &Room::Set>>();
    }
#else
    int level = 0;
    void Set(int&) {}
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Level, &Room::level, &Room::Set>>();
    }
#endif
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
