// fails with: the function for a pool returns a value, not a reference
#include <tern/typed/on_pool.h>
#include <tern/typed/task.h>

#include <utility>

using namespace mwl::Typed;
using mwl::Threading::ThreadPool::ThreadPool;

Task<> Work(const Bus& bus, ThreadPool& pool, int& number) {
#ifdef MENDED
    static_cast<void>(co_await OnPool(bus, pool, [&number] { return number; }));
#else
    static_cast<void>(co_await OnPool(bus, pool, [&number]() -> int& { return number; }));
#endif
}
