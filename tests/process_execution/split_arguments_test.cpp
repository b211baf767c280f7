#include "process_execution/split_arguments.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace mwl::ProcessExecution {
namespace {

TEST(SplitArguments, SplitsAtSpacesAndLeavesOutEmptyPieces) {
    const struct {
        const char* line;
        std::vector<std::string> arguments;
    } ROWS[] = {
        {"", {}},
        {" ", {}},
        {"    ", {}},
        {"a", {"a"}},
        {"a b", {"a", "b"}},
        {"  a   b  ", {"a", "b"}},
        {"--name=value -x", {"--name=value", "-x"}},
        {"tab\there new\nline", {"tab\there", "new\nline"}},
        {"'no quoting' \"at all\"", {"'no", "quoting'", "\"at", "all\""}},
        {"back\\ slash", {"back\\", "slash"}},
        {"\xff\x80 \xc3\xa9", {"\xff\x80", "\xc3\xa9"}},
    };
    for (const auto& row : ROWS) {
        EXPECT_EQ(SplitArguments(row.line), row.arguments) << "line: \"" << row.line << "\"";
    }
}

TEST(SplitArguments, KeepsZeroBytes) {
    EXPECT_EQ(SplitArguments(std::string("a\0b c", 5)),
              (std::vector<std::string>{std::string("a\0b", 3), "c"}));
}

}  // namespace
}  // namespace mwl::ProcessExecution
