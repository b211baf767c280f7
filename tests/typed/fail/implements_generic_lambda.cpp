// fails with: a method is bound to a member function, or to a lambda whose parameters have types
#include "method_contract.h"

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, [](Room&, int){}>>();
    }
#else
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, [](Room&, auto) {}>>();
    }
#endif
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
