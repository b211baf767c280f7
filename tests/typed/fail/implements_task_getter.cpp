// fails with: a getter answers at once: it is no Task
#include <tern/typed/caller.h>
#include <tern/typed/task_handler.h>

#include <memory>

using namespace mwl::Typed;

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";
    static constexpr Property<int> Level{"Level"};
    static constexpr Members<Level> ALL{};
};

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    int Level() {
        return 1;
    }
#else
    Task<int> Level() {
        co_return 1;
    }
#endif
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Level, &Room::Level>>();
    }
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
