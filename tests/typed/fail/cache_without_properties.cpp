// fails with: the contract has no properties to keep; EXPLICIT ones are not kept
#include <tern/typed/property_cache.h>

using namespace mwl::Typed;

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";
    static constexpr Signal<int> Hot{"Hot"};
    static constexpr Property<int> Log{"Log", EXPLICIT};
#ifdef MENDED
    static constexpr Property<int> Level{"Level"};
    static constexpr Members<Hot, Log, Level> ALL{};
#else
    static constexpr Members<Hot, Log> ALL{};
#endif
};

bool IsReady(const PropertyCache<Room1>& cache) {
    return cache.IsReady();
}
