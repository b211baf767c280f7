// fails once with: a structure on D-Bus is an aggregate of 1 to 16 fields, each of a type that can be read
#include <tern/typed/codec.h>

#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

using namespace mwl::Typed;

struct Empty {};
struct Full {
    bool content;
};

#ifdef MENDED
using Value = Full;
#else
using Value = Empty;
#endif

static_assert(SIGNATURE<Value>.SIZE > 0);

int Send(sd_bus_message* message, const Value& value) {
    return Write(message, value);
}

int Receive(sd_bus_message* message, Value& value, Fault& fault) {
    return Read(message, value, fault);
}
