// fails once with: the value of an Any cannot be borrowed: use a type that keeps it
#include <tern/typed/codec.h>

#include <string>
#include <string_view>
#include <vector>

using namespace mwl::Typed;

#ifdef MENDED
using Content = std::string;
#else
using Content = std::string_view;
#endif

bool IsThere(const Any& any) {
    return any.As<std::vector<Content>>().has_value();
}
