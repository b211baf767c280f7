// fails with: an EXPLICIT property is not sent unasked: INVALIDATES instead of EMITS
#include <tern/typed/contract.h>

using namespace mwl::Typed;

struct Contract {
    static constexpr const char* NAME = "com.example.Room1";
#ifdef MENDED
    static constexpr Property<int> Member{"Member", EXPLICIT | INVALIDATES};
#else
    static constexpr Property<int> Member{"Member", EXPLICIT | EMITS};
#endif
    static constexpr Members<Member> ALL{};
};

static_assert(CheckedContract<Contract>::IS_SOUND);
