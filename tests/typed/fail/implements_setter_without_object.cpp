// fails with: a setter is a member of the class, or takes the object, Self&, as its first parameter
#include <tern/typed/caller.h>
#include <tern/typed/implements.h>
#include <tern/typed/reply.h>

#include <memory>
#include <string>

using namespace mwl::Typed;

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";
    static constexpr WritableProperty<int> Level{"Level"};
    static constexpr Members<Level> ALL{};
};

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
