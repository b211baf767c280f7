// fails with: a handler is a member of the class, or takes the object, Self&, as its first parameter
#include "method_contract.h"

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, [](Room&, int){}>>();
    }
#else
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, [](int) {}>>();
    }
#endif
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
