// fails with: DBusFields() describes 1 to 64 fields
#include <tern/typed/codec.h>

using namespace mwl::Typed;

struct Value {
    int a;
#ifdef MENDED
    static constexpr auto DBusFields() {
        return Fields(Field("A", &Value::a));
    }
#else
    static constexpr auto DBusFields() {
        return Fields();
    }
#endif
};

int Send(sd_bus_message* message, const Value& value) {
    return Write(message, value);
}
