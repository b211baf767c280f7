// fails with: two methods, two properties or two signals of a contract have the same name
#include <tern/typed/contract.h>

using namespace mwl::Typed;

struct Contract {
    static constexpr const char* NAME = "com.example.Room1";
#ifdef MENDED
    static constexpr Property<int> First{"Same"};
    static constexpr Signal<> Second{"Same"};
#else
    static constexpr Property<int> First{"Same"};
    static constexpr WritableProperty<int> Second{"Same"};
#endif
    static constexpr Members<First, Second> ALL{};
};

static_assert(CheckedContract<Contract>::IS_SOUND);
