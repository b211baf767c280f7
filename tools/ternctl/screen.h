#pragma once

#include <termios.h>

#include <vector>

#include "look.h"

namespace ternctl {

/// The whole terminal, as long as it exists: pages replace each other, and keys arrive immediately and
/// unseen.
/// REQUIRES: standard input and output are a terminal.
class Screen {
public:
    /// Throws Failure.
    Screen();
    /// The terminal as it was before.
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    /// As many lines as there is room for. Throws Failure.
    void Show(const std::vector<Line>& lines, const Look& look);

private:
    termios mFormer{};
};

}  // namespace ternctl
