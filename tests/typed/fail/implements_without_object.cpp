// fails with: a handler is a member of the class, or takes the object, Self&, as its first parameter
#include <tern/typed/caller.h>
#include <tern/typed/implements.h>
#include <tern/typed/reply.h>

#include <memory>
#include <string>

using namespace mwl::Typed;

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";
    static constexpr Method<void(int)> Heat{"Heat", {"seconds"}};
    static constexpr Members<Heat> ALL{};
};

struct Room final : Implements<Room, Room1> {
#ifdef MENDED
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, [](Room&, int){}>>();
    }
#else
    static constexpr auto Describe() {
        return Bindings<Bind<Room1::Heat, [](int) {}>>();
    }
#endif
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
