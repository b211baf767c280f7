// fails with: what is emitted is not a member of this contract
#include <tern/typed/caller.h>
#include <tern/typed/implements.h>
#include <tern/typed/reply.h>

#include <memory>
#include <string>

using namespace mwl::Typed;

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";
    static constexpr Method<void(int)> Heat{"Heat", {"seconds"}};
    static constexpr Property<int> Serial{"Serial", CONSTANT};
    static constexpr Property<int> Level{"Level"};
    static constexpr Signal<double> Hot{"Hot", {"value"}};
    static constexpr Members<Heat, Serial, Level, Hot> ALL{};
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
        Emit<Other1::Hot>(1);
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
