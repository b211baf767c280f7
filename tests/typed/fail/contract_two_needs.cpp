// fails with: a member Needs one capability, not two
#include <tern/typed/contract.h>

using namespace mwl::Typed;

struct Contract {
    static constexpr const char* NAME = "com.example.Room1";
#ifdef MENDED
    static constexpr Method<void()> Member{"Member", {}, Needs(CAP_KILL)};
#else
    static constexpr Method<void()> Member{"Member", {}, Needs(CAP_KILL) | Needs(CAP_CHOWN)};
#endif
    static constexpr Members<Member> ALL{};
};

static_assert(CheckedContract<Contract>::IS_SOUND);
