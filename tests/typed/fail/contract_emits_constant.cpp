// fails with: a property has one of EMITS, INVALIDATES and CONSTANT
#include <tern/typed/contract.h>

using namespace mwl::Typed;

struct Contract {
    static constexpr const char* NAME = "com.example.Room1";
#ifdef MENDED
    static constexpr Property<int> Member{"Member", CONSTANT};
#else
    static constexpr Property<int> Member{"Member", EMITS | CONSTANT};
#endif
    static constexpr Members<Member> ALL{};
};

static_assert(CheckedContract<Contract>::IS_SOUND);
