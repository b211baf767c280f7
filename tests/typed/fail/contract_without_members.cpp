// fails with: a contract lists its members: static constexpr Members<...> ALL{}
#include <tern/typed/contract.h>

using namespace mwl::Typed;

struct Contract {
    static constexpr const char* NAME = "com.example.Room1";
#ifdef MENDED
    static constexpr Members<> ALL{};
#else
#endif
};

static_assert(CheckedContract<Contract>::IS_SOUND);
