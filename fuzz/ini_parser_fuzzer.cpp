// Feeds arbitrary files to IniParser::Parse and compares entries and status with a byte by byte oracle.

#include <sys/mman.h>
#include <tern/parser/ini_parser.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

namespace {

using Values = std::map<std::string, std::string>;
using mw::tern::StatusCode;

StatusCode Oracle(const std::string& content, Values& values) {
    std::string line;
    const auto take = [&] {
        bool opened = false;
        bool section = false;
        bool split = false;
        std::string attribute;
        std::string value;
        for (const char c : line) {
            opened = opened || c == '[';
            section = section || (opened && c == ']');
            if (c == '=' && !split) {
                split = true;
            } else {
                (split ? value : attribute) += c;
            }
        }
        line.clear();
        if (!opened && split) {
            values[attribute] = value;
        }
        return opened ? section : split;
    };
    for (const char c : content) {
        if (c != '\n') {
            line += c;
        } else if (!take()) {
            return StatusCode::InvalidArgument;
        }
    }
    return line.empty() || take() ? StatusCode::Ok : StatusCode::InvalidArgument;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("TERN_LOG_LEVEL", "0", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int file = memfd_create("ini", MFD_CLOEXEC);
    const std::string content(reinterpret_cast<const char*>(data), size);
    if (ftruncate(file, 0) != 0 ||
        pwrite(file, content.data(), content.size(), 0) != static_cast<ssize_t>(content.size())) {
        abort();
    }
    Values expected{{"from", "the caller"}};
    Values values = expected;
    const StatusCode status = Oracle(content, expected);
    if (mwl::Parser::IniParser::Parse("/proc/self/fd/" + std::to_string(file), values) != status ||
        values != expected) {
        fprintf(stderr, "differs from the oracle\n");
        abort();
    }
    return 0;
}
