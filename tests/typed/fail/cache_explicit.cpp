// fails with: an EXPLICIT property is not sent with the others: call for it
#include <tern/typed/property_cache.h>

using namespace mwl::Typed;

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";
    static constexpr Property<int> Level{"Level"};
    static constexpr Property<int> Log{"Log", EXPLICIT};
    static constexpr Members<Level, Log> ALL{};
};

int LevelOf(const PropertyCache<Room1>& cache) {
#ifdef MENDED
    return cache.Get<Room1::Level>().value_or(0);
#else
    return cache.Get<Room1::Log>().value_or(0);
#endif
}
