// fails with: a method with NO_REPLY has no result
#include <tern/typed/contract.h>

using namespace mwl::Typed;

struct Contract {
    static constexpr const char* NAME = "com.example.Room1";
#ifdef MENDED
    static constexpr Method<void()> Member{"Member", {}, NO_REPLY};
#else
    static constexpr Method<int()> Member{"Member", {"result"}, NO_REPLY};
#endif
    static constexpr Members<Member> ALL{};
};

static_assert(CheckedContract<Contract>::IS_SOUND);
