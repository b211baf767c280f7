// fails with: a function for a pool is none
#include <tern/typed/on_pool.h>
#include <tern/typed/task.h>

#include <utility>

using namespace mwl::Typed;
using mwl::Threading::ThreadPool::ThreadPool;

Task<> Compute();

Task<> Work(const Bus& bus, ThreadPool& pool) {
#ifdef MENDED
    co_await Compute();
    static_cast<void>(co_await OnPool(bus, pool, [] {}));
#else
    static_cast<void>(co_await OnPool(bus, pool, &Compute));
#endif
}
