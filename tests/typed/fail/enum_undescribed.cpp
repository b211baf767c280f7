// fails once with: this enumeration is not described: declare constexpr auto DBusEnum(E) beside it
#include <tern/typed/codec.h>

#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

using namespace mwl::Typed;

enum class Color { Red };
enum class Mode { Off };
constexpr auto DBusEnum(Mode) {
    return std::array{Mode::Off};
}

#ifdef MENDED
using Value = Mode;
#else
using Value = Color;
#endif

static_assert(SIGNATURE<Value>.SIZE > 0);

int Send(sd_bus_message* message, const Value& value) {
    return Write(message, value);
}

int Receive(sd_bus_message* message, Value& value, Fault& fault) {
    return Read(message, value, fault);
}
