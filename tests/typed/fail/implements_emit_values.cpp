// fails with: the values are not those of the signal
#include "two_contracts.h"

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    int level = 0;
    void Heat(int) {
        Emit<Room1::Hot>(1.0);
    }
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, &Room::Heat>, Bind<Room1::Serial, &Room::level>,
                        Bind<Room1::Level, &Room::level>>();
    }
#else
    int level = 0;
    void Heat(int) {
        Emit<Room1::Hot>(1);
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
