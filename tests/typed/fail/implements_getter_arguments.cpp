// fails with: a getter takes no arguments
#include "property_contract.h"

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    int Level() {
        return 0;
    }
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Level, &Room::Level>>();
    }
#else
    int Level(int) {
        return 0;
    }
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Level, &Room::Level>>();
    }
#endif
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
