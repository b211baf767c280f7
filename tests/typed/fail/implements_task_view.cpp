// fails with: a handler that is a Task owns its arguments: std::string for std::string_view
#include <tern/typed/caller.h>
#include <tern/typed/task_handler.h>

#include <memory>
#include <string>
#include <string_view>

using namespace mwl::Typed;

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";
    static constexpr Method<void(std::string_view)> Say{"Say", {"text"}};
    static constexpr Members<Say> ALL{};
};

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    Task<> Say(std::string) {
        co_return;
    }
#else
    Task<> Say(std::string_view) {
        co_return;
    }
#endif
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Say, &Room::Say>>();
    }
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
