// fails with: NO_REPLY is for methods
#include <tern/typed/contract.h>

using namespace mwl::Typed;

struct Contract {
    static constexpr const char* NAME = "com.example.Room1";
#ifdef MENDED
    static constexpr Property<int> Member{"Member"};
#else
    static constexpr Property<int> Member{"Member", NO_REPLY};
#endif
    static constexpr Members<Member> ALL{};
};

static_assert(CheckedContract<Contract>::IS_SOUND);
