// fails alone with: a handler that is a Task needs #include <tern/typed/task_handler.h>
#ifdef MENDED
#include <tern/typed/task_handler.h>
#else
#include <tern/typed/implements.h>
#include <tern/typed/task.h>
#endif

#include <memory>

using namespace mwl::Typed;

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";
    static constexpr Method<void(int)> Heat{"Heat", {"seconds"}};
    static constexpr Members<Heat> ALL{};
};

struct Room final : Implements<Room, Room1> {
    Task<> Heat(int) { co_return; }
    static constexpr auto Describe() { return Bindings<Bind<Room1::Heat, &Room::Heat>>(); }
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
