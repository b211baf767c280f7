// fails once with: a structure on D-Bus is an aggregate of 1 to 16 fields, each of a type that can be read
#include <tern/typed/codec.h>

#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

using namespace mwl::Typed;

struct Sixteen {
    int a, b, c, d, e, f, g, h, i, j, k, l, m, n, o, p;
};
struct Seventeen {
    int a, b, c, d, e, f, g, h, i, j, k, l, m, n, o, p, q;
};

#ifdef MENDED
using Value = Sixteen;
#else
using Value = Seventeen;
#endif

static_assert(SIGNATURE<Value>.SIZE > 0);

int Send(sd_bus_message* message, const Value& value) {
    return Write(message, value);
}

int Receive(sd_bus_message* message, Value& value, Fault& fault) {
    return Read(message, value, fault);
}
