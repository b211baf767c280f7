// fails with: a writable property is not CONSTANT
#include <tern/typed/contract.h>

using namespace mwl::Typed;

struct Contract {
    static constexpr const char* NAME = "com.example.Room1";
#ifdef MENDED
    static constexpr WritableProperty<int> Member{"Member", EXPLICIT};
#else
    static constexpr WritableProperty<int> Member{"Member", CONSTANT};
#endif
    static constexpr Members<Member> ALL{};
};

static_assert(CheckedContract<Contract>::IS_SOUND);
