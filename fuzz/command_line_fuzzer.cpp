// Compares the splitting of a command line into arguments with a byte by byte oracle, and splits what it gave
// once more: the arguments joined again by single spaces split into themselves.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "process_execution/split_arguments.h"

namespace {

std::vector<std::string> Oracle(const std::string& line) {
    std::vector<std::string> arguments;
    bool inside = false;
    for (const char c : line) {
        if (c == ' ') {
            inside = false;
            continue;
        }
        if (!inside) {
            arguments.emplace_back();
        }
        inside = true;
        arguments.back() += c;
    }
    return arguments;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string line(reinterpret_cast<const char*>(data), size);
    const std::vector<std::string> arguments = mwl::ProcessExecution::SplitArguments(line);
    std::string joined;
    for (const std::string& argument : arguments) {
        joined += (joined.empty() ? "" : " ") + argument;
    }
    if (arguments != Oracle(line) || mwl::ProcessExecution::SplitArguments(joined) != arguments) {
        fprintf(stderr, "differs from the oracle\n");
        abort();
    }
    return 0;
}
