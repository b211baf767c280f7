// fails with: errors are not the value of an Outcome: say Outcome<void>
#include <tern/typed/error.h>

#include <string>

using namespace mwl::Typed;

#ifdef MENDED
using Value = void;
#else
using Value = Error;
#endif

bool IsOk(const Outcome<Value>& outcome) {
    return outcome.IsOk();
}
