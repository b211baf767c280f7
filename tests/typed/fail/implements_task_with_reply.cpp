// fails with: a handler that takes a Reply returns nothing: the Reply answers
#include <tern/typed/caller.h>
#include <tern/typed/task_handler.h>

#include <memory>

using namespace mwl::Typed;

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";
    static constexpr Method<void(int)> Heat{"Heat", {"seconds"}};
    static constexpr Members<Heat> ALL{};
};

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    Task<> Heat(int) {
        co_return;
    }
#else
    Task<> Heat(Reply<void>, int) {
        co_return;
    }
#endif
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, &Room::Heat>>();
    }
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
