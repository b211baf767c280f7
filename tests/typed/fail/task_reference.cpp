// fails with: a Task gives a value, not a reference
#include <tern/typed/all.h>
#include <tern/typed/sleep.h>
#include <tern/typed/task.h>

#include <chrono>
#include <utility>

using namespace mwl::Typed;

#ifdef MENDED
bool IsDone(const Task<int>& task) {
#else
bool IsDone(const Task<int&>& task) {
#endif
    return task.IsDone();
}
