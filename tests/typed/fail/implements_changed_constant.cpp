// fails with: what has changed is not a property that announces its changes
#include "two_contracts.h"

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    int level = 0;
    void Heat(int) {
        Changed<Room1::Level>();
    }
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, &Room::Heat>, Bind<Room1::Serial, &Room::level>,
                        Bind<Room1::Level, &Room::level>>();
    }
#else
    int level = 0;
    void Heat(int) {
        Changed<Room1::Serial>();
    }
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, &Room::Heat>, Bind<Room1::Serial, &Room::level>,
                        Bind<Room1::Level, &Room::level>>();
    }
#endif
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
