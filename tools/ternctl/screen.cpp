#include "screen.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "failure.h"
#include "output.h"

namespace ternctl {

Screen::Screen() {
    if (tcgetattr(STDIN_FILENO, &mFormer) != 0) {
        throw SystemFailure("the terminal cannot be set", errno);
    }
    termios raw = mFormer;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    raw.c_cc[VSUSP] = _POSIX_VDISABLE;  // a shell would get this screen
    tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    // The other screen, without a cursor.
    fputs("\033[?1049h\033[?25l", stdout);
}

Screen::~Screen() {
    fputs("\033[?25h\033[?1049l", stdout);
    fflush(stdout);
    tcsetattr(STDIN_FILENO, TCSANOW, &mFormer);
}

void Screen::Show(const std::vector<Line>& lines, const Look& look) {
    // Each line is overwritten and its rest erased, so that nothing flickers.
    std::string page = "\033[H";
    const std::size_t count = std::min(lines.size(), look.rows > 1 ? look.rows - 1 : 1);
    for (std::size_t i = 0; i < count; ++i) {
        page += Render(lines[i], look) + "\033[K\r\n";
    }
    Print(page + "  q ends\033[K\033[J");
}

}  // namespace ternctl
