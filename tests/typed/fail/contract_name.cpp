// fails with: the NAME of a contract has two or more parts
#include <tern/typed/contract.h>

using namespace mwl::Typed;

struct Contract {
#ifdef MENDED
    static constexpr const char* NAME = "com.example.Room1";
#else
    static constexpr const char* NAME = "Room1";
#endif
    static constexpr Members<> ALL{};
};

static_assert(CheckedContract<Contract>::IS_SOUND);
