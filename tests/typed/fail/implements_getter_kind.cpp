// fails with: a property is bound to a data member, a member function, or a lambda that takes the object
#include <tern/typed/caller.h>
#include <tern/typed/implements.h>
#include <tern/typed/reply.h>

#include <memory>
#include <string>

using namespace mwl::Typed;

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";
    static constexpr Property<int> Level{"Level"};
    static constexpr Members<Level> ALL{};
};

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    int level = 5;
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Level, &Room::level>>();
    }
#else
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Level, 5>>();
    }
#endif
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
