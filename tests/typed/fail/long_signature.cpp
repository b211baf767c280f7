// fails with: a D-Bus signature has at most 255 characters
#include <tern/typed/codec.h>

#include <cstdint>
#include <tuple>

using namespace mwl::Typed;

template <class T>
using Four = std::tuple<T, T, T, T>;
/// 16 numbers, 26 characters.
using Sixteen = Four<Four<std::uint32_t>>;

#ifdef MENDED
constexpr auto SIGNATURE_OF_IT = MakeSignature<Four<Sixteen>, Four<Sixteen>>();
#else
constexpr auto SIGNATURE_OF_IT = MakeSignature<Four<Sixteen>, Four<Sixteen>, Four<Sixteen>>();
#endif

static_assert(SIGNATURE_OF_IT.SIZE > 0);
