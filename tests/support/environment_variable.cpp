#include "environment_variable.h"

#include <stdlib.h>

namespace tern::test {

// NOLINTBEGIN(concurrency-mt-unsafe): there are no other threads yet, or any more
void EnvironmentVariable::Add(const void* owner, const std::string& value) {
    mValues.emplace_back(owner, value);
    setenv(mName, value.c_str(), 1);
}

void EnvironmentVariable::Remove(const void* owner) {
    const bool wasNewest = !mValues.empty() && mValues.back().first == owner;
    std::erase_if(mValues, [owner](const auto& value) { return value.first == owner; });
    if (wasNewest && mValues.empty()) {
        unsetenv(mName);
    } else if (wasNewest) {
        setenv(mName, mValues.back().second.c_str(), 1);
    }
}
// NOLINTEND(concurrency-mt-unsafe)

}  // namespace tern::test
