// fails with: a member of a contract is a Method, a Property, a WritableProperty or a Signal
#include <tern/typed/contract.h>

using namespace mwl::Typed;

struct Contract {
    static constexpr const char* NAME = "com.example.Room1";
#ifdef MENDED
    static constexpr Property<int> Member{"Member"};
#else
    static constexpr int Member = 3;
#endif
    static constexpr Members<Member> ALL{};
};

static_assert(CheckedContract<Contract>::IS_SOUND);
