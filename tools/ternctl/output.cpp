#include "output.h"

#include <cerrno>
#include <cstdio>

#include "failure.h"
#include "text.h"

namespace ternctl {

void Print(std::string_view text) {
    if (fwrite(text.data(), 1, text.size(), stdout) != text.size() || fflush(stdout) != 0) {
        throw SystemFailure("cannot write the output", errno);
    }
}

void PrintLine(std::string_view text) {
    Print(std::string(text) + '\n');
}

void Complain(std::string_view text) {
    fprintf(stderr, "ternctl: %s\n", Printable(text, IsUtf8()).c_str());
}

}  // namespace ternctl
