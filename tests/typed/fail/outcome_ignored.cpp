// fails with: nodiscard
#include <tern/typed/error.h>

#include <string>

using namespace mwl::Typed;

#ifdef MENDED
void Use(Outcome<void> (*work)()) {
    static_cast<void>(work());
}
#else
void Use(Outcome<void> (*work)()) {
    work();
}
#endif
