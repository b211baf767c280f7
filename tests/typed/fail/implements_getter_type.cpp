// fails with: the type of the getter, or of the data member, is not that of the property
#include "property_contract.h"

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    int level = 0;
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Level, &Room::level>>();
    }
#else
    double level = 0;
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Level, &Room::level>>();
    }
#endif
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
