// fails with: a handler that is a Task owns its arguments: std::string for std::string_view
#include <tern/typed/caller.h>
#include <tern/typed/task_handler.h>

#include <memory>

using namespace mwl::Typed;

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";
    static constexpr Method<void(OwnedFd)> Take{"Take", {"file"}};
    static constexpr Members<Take> ALL{};
};

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    Task<> Take(OwnedFd) {
        co_return;
    }
#else
    Task<> Take(BorrowedFd) {
        co_return;
    }
#endif
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Take, &Room::Take>>();
    }
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
