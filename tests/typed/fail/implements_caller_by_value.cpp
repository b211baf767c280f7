// fails with: a handler takes, in this order: Reply<R>, const Caller&, the arguments
#include "method_contract.h"

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    void Heat(const Caller&, int) {}
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, &Room::Heat>>();
    }
#else
    void Heat(Caller, int) {}
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, &Room::Heat>>();
    }
#endif
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
