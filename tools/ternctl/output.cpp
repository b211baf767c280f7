#include "output.h"

#include <langinfo.h>

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
    const bool isUtf8 = std::string_view(nl_langinfo(CODESET)) == "UTF-8";
    fprintf(stderr, "ternctl: %s\n", Printable(text, isUtf8).c_str());
}

}  // namespace ternctl
