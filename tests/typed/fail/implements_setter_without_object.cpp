// fails with: a setter is a member of the class, or takes the object, Self&, as its first parameter
#include "writable_contract.h"

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    int level = 0;

    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Level, &Room::level, [](Room&, int){}>>();
    }
#else
    int level = 0;

    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Level, &Room::level, [](int, int) {}>>();
    }
#endif
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
