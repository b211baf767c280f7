// fails with: a property that is not writable is bound to a getter alone
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
    int level = 0;
    void Set(int) {}
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Level, &Room::level>>();
    }
#else
    int level = 0;
    void Set(int) {}
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Level, &Room::level, &Room::Set>>();
    }
#endif
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
