// fails with: the answer is sent later: its value must own what it holds
#include <tern/typed/caller.h>
#include <tern/typed/task_handler.h>

#include <memory>
#include <string>
#include <string_view>

using namespace mwl::Typed;

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";
    static constexpr Method<std::string()> Say{"Say", {"text"}};
    static constexpr Members<Say> ALL{};
};

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    Task<std::string> Say() {
        co_return "";
    }
#else
    Task<std::string_view> Say() {
        co_return "";
    }
#endif
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Say, &Room::Say>>();
    }
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
