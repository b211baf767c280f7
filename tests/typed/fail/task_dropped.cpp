// fails with: nodiscard
#include <tern/typed/all.h>
#include <tern/typed/sleep.h>
#include <tern/typed/task.h>

#include <chrono>
#include <utility>

using namespace mwl::Typed;

Task<> Work();

void Begin(Task<>& kept) {
#ifdef MENDED
    kept = Work();
#else
    static_cast<void>(kept);
    Work();
#endif
}
