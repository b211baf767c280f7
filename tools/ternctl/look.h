#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ternctl {

/// The abilities of standard output.
struct Look {
    bool isTerminal = false;  ///< a person sees it immediately, and lines can be rewritten
    bool isColoured = false;  ///< a terminal, and the person has not set NO_COLOR
    bool isUtf8 = false;      ///< by the locale
    std::size_t columns = 80;
    std::size_t rows = 40;

    /// The sign in place of a text that is cut.
    std::string_view GetMore() const { return isUtf8 ? "\u2026" : "..."; }
    /// See Printable.
    std::string Show(std::string_view text) const;

    /// As it is now; of something that is no terminal, 80 columns and 40 rows.
    static Look OfOutput();
};

/// A line of a page.
struct Line {
    std::string text{};      ///< printable
    bool isMarked = false;   ///< deserves attention
    bool isHeading = false;  ///< of a section
};

/// As it is written, without the end of line: two columns with the mark, then the text, cut to the width.
std::string Render(const Line& line, const Look& look);

}  // namespace ternctl
