// fails with: a signal is not HIDDEN
#include <tern/typed/contract.h>

using namespace mwl::Typed;

struct Contract {
    static constexpr const char* NAME = "com.example.Room1";
#ifdef MENDED
    static constexpr Signal<int> Member{"Member", {"value"}, DEPRECATED};
#else
    static constexpr Signal<int> Member{"Member", {"value"}, HIDDEN};
#endif
    static constexpr Members<Member> ALL{};
};

static_assert(CheckedContract<Contract>::IS_SOUND);
