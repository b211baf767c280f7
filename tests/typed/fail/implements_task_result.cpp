// fails with: the result of the handler is not that of the contract
#include <tern/typed/caller.h>
#include <tern/typed/task_handler.h>

#include <memory>

using namespace mwl::Typed;

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";
    static constexpr Method<double(int)> Heat{"Heat", {"seconds", "celsius"}};
    static constexpr Members<Heat> ALL{};
};

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    Task<double> Heat(int) {
        co_return 1.0;
    }
#else
    Task<int> Heat(int) {
        co_return 1;
    }
#endif
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, &Room::Heat>>();
    }
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
