// fails with: Checked is for methods: sd-bus itself answers who writes a property
#include <tern/typed/contract.h>

using namespace mwl::Typed;

struct Contract {
    static constexpr const char* NAME = "com.example.Room1";
#ifdef MENDED
    static constexpr WritableProperty<int> Member{"Member", Needs(CAP_SYS_ADMIN)};
#else
    static constexpr WritableProperty<int> Member{"Member", Checked()};
#endif
    static constexpr Members<Member> ALL{};
};

static_assert(CheckedContract<Contract>::IS_SOUND);
