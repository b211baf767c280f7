// fails with: the type of a method is written as Method<Result(Arguments...)>
#include <tern/typed/contract.h>

using namespace mwl::Typed;

struct Contract {
    static constexpr const char* NAME = "com.example.Room1";
#ifdef MENDED
    static constexpr Method<int()> Member{"Member"};
#else
    static constexpr Method<int> Member{};
#endif
    static constexpr Members<Member> ALL{};
};

static_assert(CheckedContract<Contract>::IS_SOUND);
