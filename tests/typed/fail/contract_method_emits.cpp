// fails with: EMITS, INVALIDATES, CONSTANT and EXPLICIT are for properties
#include <tern/typed/contract.h>

using namespace mwl::Typed;

struct Contract {
    static constexpr const char* NAME = "com.example.Room1";
#ifdef MENDED
    static constexpr Method<void()> Member{"Member", {}, HIDDEN};
#else
    static constexpr Method<void()> Member{"Member", {}, EMITS};
#endif
    static constexpr Members<Member> ALL{};
};

static_assert(CheckedContract<Contract>::IS_SOUND);
