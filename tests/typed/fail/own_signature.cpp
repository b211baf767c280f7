// fails once with: the SIGNATURE of a Codec is not one complete D-Bus type of at most 32 levels
#include <tern/typed/codec.h>

#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

using namespace mwl::Typed;

class Wrong {};
class Right {};
template <>
struct mwl::Typed::Codec<Wrong> {
    static constexpr Text SIGNATURE = "a{sv";
    static int Write(sd_bus_message*, const Wrong&) { return 0; }
    static int Read(sd_bus_message*, Wrong&, Fault&) { return 0; }
};
template <>
struct mwl::Typed::Codec<Right> {
    static constexpr Text SIGNATURE = "a{sv}";
    static int Write(sd_bus_message*, const Right&) { return 0; }
    static int Read(sd_bus_message*, Right&, Fault&) { return 0; }
};

#ifdef MENDED
using Value = Right;
#else
using Value = Wrong;
#endif

static_assert(SIGNATURE<Value>.SIZE > 0);

int Send(sd_bus_message* message, const Value& value) {
    return Write(message, value);
}

int Receive(sd_bus_message* message, Value& value, Fault& fault) {
    return Read(message, value, fault);
}
