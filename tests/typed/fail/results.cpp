// fails once with: Results<...> are several output arguments, not one value: use std::tuple
#include <tern/typed/codec.h>

#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

using namespace mwl::Typed;

#ifdef MENDED
using Value = std::vector<std::tuple<int, bool>>;
#else
using Value = std::vector<Results<int, bool>>;
#endif

static_assert(SIGNATURE<Value>.SIZE > 0);

int Send(sd_bus_message* message, const Value& value) {
    return Write(message, value);
}

int Receive(sd_bus_message* message, Value& value, Fault& fault) {
    return Read(message, value, fault);
}
