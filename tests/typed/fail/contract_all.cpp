// fails with: ALL of a contract is of the type Members<...>
#include <tern/typed/contract.h>

using namespace mwl::Typed;

struct Contract {
    static constexpr const char* NAME = "com.example.Room1";
#ifdef MENDED
    static constexpr Members<> ALL{};
#else
    static constexpr int ALL{};
#endif
};

static_assert(CheckedContract<Contract>::IS_SOUND);
