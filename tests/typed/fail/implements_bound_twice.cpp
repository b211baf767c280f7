// fails with: a member of the contract is bound twice
#include "method_contract.h"

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    void Heat(int) {}
    void Cool(int) {}
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, &Room::Heat>>();
    }
#else
    void Heat(int) {}
    void Cool(int) {}
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, &Room::Heat>, Bind<Room1::Heat, &Room::Cool>>();
    }
#endif
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
