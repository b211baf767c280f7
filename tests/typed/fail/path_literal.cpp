// fails with: is not a constant expression
#include <tern/typed/codec.h>

using namespace mwl::Typed;

ObjectPath Make() {
#ifdef MENDED
    return ObjectPath("/com/example");
#else
    return ObjectPath("com/example");
#endif
}
