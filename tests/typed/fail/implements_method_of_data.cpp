// fails with: a method is bound to a function, not to a data member
#include "method_contract.h"

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    void Heat(int) {}
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, &Room::Heat>>();
    }
#else
    int Heat = 0;
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, &Room::Heat>>();
    }
#endif
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
