// fails with: a property is bound to a data member, a member function, or a lambda that takes the object
#include "property_contract.h"

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    int level = 5;
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Level, &Room::level>>();
    }
#else
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Level, 5>>();
    }
#endif
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
