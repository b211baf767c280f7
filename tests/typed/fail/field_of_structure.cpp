// fails once with: D-Bus has no float and no long double: use double
#include <tern/typed/codec.h>

#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

using namespace mwl::Typed;

struct Wrong {
    int number;
    float level;
};
struct Right {
    int number;
    double level;
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
