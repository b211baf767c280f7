#include "process_resources.h"

#include <filesystem>
#include <iterator>

namespace tern::test {

namespace {

std::size_t CountEntries(const char* folder) {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

}  // namespace

// The walk itself holds one descriptor.
std::size_t CountDescriptors() {
    return CountEntries("/proc/self/fd") - 1;
}

std::size_t CountThreads() {
    return CountEntries("/proc/self/task");
}

}  // namespace tern::test
