// fails with: the function for a pool cannot be called with the arguments
#include <tern/typed/on_pool.h>
#include <tern/typed/task.h>

#include <utility>

using namespace mwl::Typed;
using mwl::Threading::ThreadPool::ThreadPool;

Task<> Work(const Bus& bus, ThreadPool& pool) {
#ifdef MENDED
    static_cast<void>(co_await OnPool(
        bus, pool, [](int) {}, 1));
#else
    static_cast<void>(co_await OnPool(bus, pool, [](int) {}));
#endif
}
