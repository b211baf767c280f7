// fails with: the first argument of Implements is the class that derives from it
#include <tern/typed/implements.h>

#include <memory>

using namespace mwl::Typed;

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";
    static constexpr Members<> ALL{};
};

struct Room;
#ifdef MENDED
using Named = Room;
#else
using Named = struct Hall;
#endif

struct Hall {
    static constexpr auto Describe() { return Bindings<>(); }
};
struct Room : Implements<Named, Room1> {
    static constexpr auto Describe() { return Bindings<>(); }
};

std::unique_ptr<InterfaceBase> Make() {
    return std::make_unique<Room>();
}
