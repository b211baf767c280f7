// fails with: a handler that takes a Reply owns its arguments: std::string for std::string_view
#include <tern/typed/caller.h>
#include <tern/typed/implements.h>
#include <tern/typed/reply.h>

#include <memory>
#include <string>

using namespace mwl::Typed;

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";
    static constexpr Method<void(OwnedFd)> Say{"Say", {"text"}};
    static constexpr Members<Say> ALL{};
};

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    void Say(Reply<void>, const Caller&, OwnedFd) {}
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Say, &Room::Say>>();
    }
#else
    void Say(Reply<void>, const Caller&, BorrowedFd) {}
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Say, &Room::Say>>();
    }
#endif
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
