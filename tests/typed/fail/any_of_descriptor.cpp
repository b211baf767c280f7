// fails once with: Any keeps no file descriptors
#include <tern/typed/codec.h>

#include <tuple>

using namespace mwl::Typed;

#ifdef MENDED
using Value = std::tuple<int, bool>;
#else
using Value = std::tuple<int, BorrowedFd>;
#endif

Any Keep(const Value& value) {
    return Any::From(value);
}
