// fails with: the answer is sent later: its value must own what it holds, std::string for std::string_view
#include <tern/typed/implements.h>
#include <tern/typed/reply.h>

#include <string>
#include <string_view>

using namespace mwl::Typed;

#ifdef MENDED
using Value = std::string;
#else
using Value = std::string_view;
#endif

void Answer(Reply<Value>& reply) {
    reply.Return("text");
}
