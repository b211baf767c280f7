// fails once with: two fields of DBusFields() have the same key
#include <tern/typed/codec.h>

#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

using namespace mwl::Typed;

struct Wrong {
    int a;
    int b;
    static constexpr auto DBusFields() { return Fields(Field("A", &Wrong::a), Field("A", &Wrong::b)); }
};
struct Right {
    int a;
    int b;
    static constexpr auto DBusFields() { return Fields(Field("A", &Right::a), Field("B", &Right::b)); }
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
