// fails with: an Outcome holds a value, not a reference
#include <tern/typed/error.h>

#include <string>

using namespace mwl::Typed;

#ifdef MENDED
using Value = std::string;
#else
using Value = std::string&;
#endif

bool IsOk(const Outcome<Value>& outcome) {
    return outcome.IsOk();
}
