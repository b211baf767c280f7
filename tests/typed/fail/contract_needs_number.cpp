// fails with: Needs takes a number of capabilities(7), such as CAP_SYS_TIME
#include <tern/typed/contract.h>

using namespace mwl::Typed;

struct Contract {
    static constexpr const char* NAME = "com.example.Room1";
#ifdef MENDED
    static constexpr Method<void()> Member{"Member", {}, Needs(63)};
#else
    static constexpr Method<void()> Member{"Member", {}, Needs(64)};
#endif
    static constexpr Members<Member> ALL{};
};

static_assert(CheckedContract<Contract>::IS_SOUND);
