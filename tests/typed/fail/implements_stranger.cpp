// fails with: what is bound is not a member of this contract
#include <tern/typed/caller.h>
#include <tern/typed/implements.h>
#include <tern/typed/reply.h>

#include <memory>
#include <string>

using namespace mwl::Typed;

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";
    static constexpr Method<void(int)> Heat{"Heat", {"seconds"}};
    static constexpr Members<Heat> ALL{};
};

struct Other1 {
    static constexpr const char* NAME = "com.example.Other1";
    static constexpr Method<void(int)> Heat{"Heat", {"seconds"}};
    static constexpr Signal<int> Hot{"Hot", {"value"}};
    static constexpr Property<int> Level{"Level"};
    static constexpr Members<Heat, Hot, Level> ALL{};
};

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    void Heat(int) {}
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, &Room::Heat>>();
    }
#else
    void Heat(int) {}
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, &Room::Heat>, Bind<Other1::Heat, &Room::Heat>>();
    }
#endif
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
