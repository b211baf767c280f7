// fails with: Bindings are of Bind<member, functions...>
#include "method_contract.h"

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    void Heat(int) {}
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, &Room::Heat>>();
    }
#else
    void Heat(int) {}
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, &Room::Heat>, int>();
    }
#endif
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
