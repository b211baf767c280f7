// fails with: a contract has a NAME: static constexpr const char* NAME = ...
#include <tern/typed/contract.h>

using namespace mwl::Typed;

struct Contract {
#ifdef MENDED
    static constexpr const char* NAME = "com.example.Room1";
#else
#endif
    static constexpr Members<> ALL{};
};

static_assert(CheckedContract<Contract>::IS_SOUND);
