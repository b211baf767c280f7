// fails with: a member is OPEN to everyone, or Needs a capability, or is Checked
#include <tern/typed/contract.h>

using namespace mwl::Typed;

struct Contract {
    static constexpr const char* NAME = "com.example.Room1";
#ifdef MENDED
    static constexpr Method<void()> Member{"Member", {}, Checked()};
#else
    static constexpr Method<void()> Member{"Member", {}, OPEN | Checked()};
#endif
    static constexpr Members<Member> ALL{};
};

static_assert(CheckedContract<Contract>::IS_SOUND);
