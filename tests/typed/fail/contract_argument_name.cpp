// fails with: the name of an argument is of letters, digits, '_', '-' and '.'
#include <tern/typed/contract.h>

using namespace mwl::Typed;

struct Contract {
    static constexpr const char* NAME = "com.example.Room1";
#ifdef MENDED
    static constexpr Signal<int> Member{"Member", {"the-value"}};
#else
    static constexpr Signal<int> Member{"Member", {"the value"}};
#endif
    static constexpr Members<Member> ALL{};
};

static_assert(CheckedContract<Contract>::IS_SOUND);
