// fails with: nobody calls a signal: OPEN and Needs are for methods and writable properties
#include <tern/typed/contract.h>

using namespace mwl::Typed;

struct Contract {
    static constexpr const char* NAME = "com.example.Room1";
#ifdef MENDED
    static constexpr Signal<int> Member{"Member", {"value"}};
#else
    static constexpr Signal<int> Member{"Member", {"value"}, OPEN};
#endif
    static constexpr Members<Member> ALL{};
};

static_assert(CheckedContract<Contract>::IS_SOUND);
