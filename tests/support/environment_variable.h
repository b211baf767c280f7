#pragma once

#include <string>
#include <utility>
#include <vector>

namespace tern::test {

/// A variable of the environment to which living objects give values: it has that of the one which was made
/// last, and is not set when there is none. One thread at a time.
class EnvironmentVariable {
public:
    /// `name` outlives it.
    explicit EnvironmentVariable(const char* name) : mName(name) {}

    /// `owner` has been made; from now on the variable has its value.
    void Add(const void* owner, const std::string& value);
    /// `owner` goes. Nothing happens when it was not added.
    void Remove(const void* owner);

private:
    const char* mName;
    std::vector<std::pair<const void*, std::string>> mValues;  ///< of the living, the newest last
};

}  // namespace tern::test
