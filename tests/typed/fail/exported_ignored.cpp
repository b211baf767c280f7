// fails with: nodiscard
#include <tern/typed/bus.h>
#include <tern/typed/implements.h>

#include <memory>

using namespace mwl::Typed;

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";
    static constexpr Method<void()> Open{"Open"};
    static constexpr Members<Open> ALL{};
};
struct Room final : Implements<Room, Room1> {
    void Open() {}
    static constexpr auto Describe() { return Bindings<Bind<Room1::Open, &Room::Open>>(); }
};

#ifdef MENDED
Exported Put(Bus& bus) {
    return bus.Export("/com/example/room", std::make_unique<Room>());
}
#else
void Put(Bus& bus) {
    bus.Export("/com/example/room", std::make_unique<Room>());  // gone at once
}
#endif
