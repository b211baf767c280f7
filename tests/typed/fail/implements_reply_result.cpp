// fails with: the result of the handler is not that of the contract
#include "method_contract.h"

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    void Heat(Reply<void>, int) {}
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, &Room::Heat>>();
    }
#else
    void Heat(Reply<int>, int) {}
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, &Room::Heat>>();
    }
#endif
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
