// fails with: everyone may read a property: OPEN and Needs are for writable ones
#include <tern/typed/contract.h>

using namespace mwl::Typed;

struct Contract {
    static constexpr const char* NAME = "com.example.Room1";
#ifdef MENDED
    static constexpr WritableProperty<int> Member{"Member", EMITS | OPEN};
#else
    static constexpr Property<int> Member{"Member", EMITS | OPEN};
#endif
    static constexpr Members<Member> ALL{};
};

static_assert(CheckedContract<Contract>::IS_SOUND);
