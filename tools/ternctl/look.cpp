#include "look.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>

#include "text.h"

namespace ternctl {

namespace {

// Only one thread runs in this program.
std::string_view ValueOf(const char* variable) {
    const char* const value = getenv(variable);  // NOLINT(concurrency-mt-unsafe)
    return value != nullptr ? value : "";
}

}  // namespace

Look Look::OfOutput() {
    Look look;
    look.isUtf8 = IsUtf8();
    look.isTerminal = isatty(STDOUT_FILENO) == 1 && ValueOf("TERM") != "dumb";
    look.isColoured = look.isTerminal && ValueOf("NO_COLOR").empty();
    winsize size{};
    if (isatty(STDOUT_FILENO) == 1 && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 &&
        size.ws_row > 0) {
        look.columns = size.ws_col;
        look.rows = size.ws_row;
    }
    return look;
}

std::string Look::Show(std::string_view text) const {
    return Printable(text, isUtf8);
}

std::string Render(const Line& line, const Look& look) {
    std::string text = FitBegin((line.isMarked ? "! " : "  ") + line.text, look.columns, look.GetMore());
    text.erase(text.find_last_not_of(' ') + 1);
    if (!look.isColoured || (!line.isMarked && !line.isHeading)) {
        return text;
    }
    return (line.isMarked ? "\033[1;31m" : "\033[1m") + text + "\033[0m";
}

}  // namespace ternctl
