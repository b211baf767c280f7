// fails with: what is awaited together is given away: std::move
#include <tern/typed/all.h>
#include <tern/typed/sleep.h>
#include <tern/typed/task.h>

#include <chrono>
#include <utility>

using namespace mwl::Typed;

Task<> Work(Sleep sleep) {
#ifdef MENDED
    co_await All(std::move(sleep));
#else
    co_await All(sleep);
#endif
}
