// fails with: a setter answers at once: it is no Task
#include <tern/typed/caller.h>
#include <tern/typed/task_handler.h>

#include <memory>

using namespace mwl::Typed;

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";
    static constexpr WritableProperty<int> Level{"Level"};
    static constexpr Members<Level> ALL{};
};

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    int level = 0;
    void Set(int) {}
#else
    int level = 0;
    Task<> Set(int) {
        co_return;
    }
#endif
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Level, &Room::level, &Room::Set>>();
    }
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
