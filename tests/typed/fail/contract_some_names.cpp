// fails with: every argument has a name, or none has
#include <tern/typed/contract.h>

using namespace mwl::Typed;

struct Contract {
    static constexpr const char* NAME = "com.example.Room1";
#ifdef MENDED
    static constexpr Method<int(int)> Member{"Member", {"value", "result"}};
#else
    static constexpr Method<int(int)> Member{"Member", {"value"}};
#endif
    static constexpr Members<Member> ALL{};
};

static_assert(CheckedContract<Contract>::IS_SOUND);
