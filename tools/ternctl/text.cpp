#include "text.h"

#include <langinfo.h>

#include <array>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <utility>

namespace ternctl {

namespace {

constexpr char32_t REPLACEMENT = 0xFFFD;
constexpr std::uint64_t SECOND = 1'000'000;

std::size_t WidthOf(char32_t code) {
    if (code >= 0x300 && code <= 0x36F) {
        return 0;  // joins the one before
    }
    const bool isWide = (code >= 0x1100 && code <= 0x115F) || (code >= 0x2E80 && code <= 0xA4CF) ||
                        (code >= 0xAC00 && code <= 0xD7A3) || (code >= 0xF900 && code <= 0xFAFF) ||
                        (code >= 0xFE30 && code <= 0xFE6F) || (code >= 0xFF00 && code <= 0xFF60) ||
                        (code >= 0xFFE0 && code <= 0xFFE6) || (code >= 0x1F300 && code <= 0x1FAFF) ||
                        (code >= 0x20000 && code <= 0x3FFFD);
    return isWide ? 2 : 1;
}

/// Three digits and a unit.
std::string Scaled(double value, const char* unit) {
    return Format(value < 9.995 ? "%.2f %s" : value < 99.95 ? "%.1f %s" : "%.0f %s", value, unit);
}

std::string Pair(std::uint64_t seconds, std::uint64_t large, const char* largeUnit, std::uint64_t small,
                 const char* smallUnit) {
    return Format("%" PRIu64 " %s %" PRIu64 " %s", seconds / large, largeUnit, seconds % large / small,
                  smallUnit);
}

}  // namespace

bool SteersTerminals(char32_t code) {
    return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0xAD || code == 0x61C ||
           (code >= 0x200B && code <= 0x200F) || (code >= 0x2028 && code <= 0x202E) ||
           (code >= 0x2060 && code <= 0x206F) || code == 0xFEFF || (code >= 0xFFF9 && code <= 0xFFFB) ||
           (code >= 0xE0000 && code <= 0xE007F);
}

Character ReadCharacter(std::string_view text) {
    const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    if (first < 0x80) {
        return {first, 1, true};
    }
    const std::size_t size = first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : first < 0xF5 ? 4 : 0;
    if (size == 0 || size > text.size()) {
        return {REPLACEMENT, 1, false};
    }
    char32_t code = first & (0x7FU >> size);
    for (std::size_t i = 1; i < size; ++i) {
        if ((byte(i) & 0xC0U) != 0x80) {
            return {REPLACEMENT, 1, false};
        }
        code = (code << 6U) | (byte(i) & 0x3FU);
    }
    static constexpr std::array<char32_t, 5> SMALLEST{0, 0, 0x80, 0x800, 0x10000};
    if (code < SMALLEST.at(size) || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
        return {REPLACEMENT, 1, false};
    }
    return {code, size, true};
}

std::string Printable(std::string_view text, bool isUtf8) {
    std::string shown;
    shown.reserve(text.size());
    while (!text.empty()) {
        const Character next = ReadCharacter(text);
        if (!next.isValid || (next.code < 0x80 && SteersTerminals(next.code))) {
            shown += Format("\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(text[0])));
        } else if (SteersTerminals(next.code) || (next.code >= 0x80 && !isUtf8)) {
            shown += Format("\\u{%x}", static_cast<unsigned>(next.code));
        } else {
            shown += text.substr(0, next.size);
        }
        text.remove_prefix(next.size);
    }
    return shown;
}

std::size_t Width(std::string_view text) {
    std::size_t width = 0;
    while (!text.empty()) {
        const Character next = ReadCharacter(text);
        width += WidthOf(next.code);
        text.remove_prefix(next.size);
    }
    return width;
}

std::string FitBegin(std::string_view text, std::size_t width, std::string_view more) {
    if (Width(text) <= width) {
        return std::string(text);
    }
    const std::size_t reserved = Width(more);
    std::string fit;
    std::size_t taken = 0;
    std::string_view rest = text;
    while (!rest.empty() && reserved <= width) {
        const Character next = ReadCharacter(rest);
        taken += WidthOf(next.code);
        if (taken > width - reserved) {
            break;
        }
        fit += rest.substr(0, next.size);
        rest.remove_prefix(next.size);
    }
    return reserved <= width ? fit + std::string(more) : fit;
}

std::string FitEnd(std::string_view text, std::size_t width, std::string_view more) {
    std::size_t left = Width(text);
    if (left <= width) {
        return std::string(text);
    }
    const std::size_t reserved = Width(more);
    const std::size_t room = reserved <= width ? width - reserved : 0;
    while (!text.empty() && left > room) {
        const Character next = ReadCharacter(text);
        left -= WidthOf(next.code);
        text.remove_prefix(next.size);
    }
    return reserved <= width ? std::string(more) + std::string(text) : std::string();
}

bool IsUtf8() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): only one thread runs in this program
    return std::string_view(nl_langinfo(CODESET)) == "UTF-8";
}

std::string PadRight(std::string text, std::size_t width) {
    const std::size_t taken = Width(text);
    return taken < width ? std::move(text) + std::string(width - taken, ' ') : text;
}

std::string PadLeft(const std::string& text, std::size_t width) {
    const std::size_t taken = Width(text);
    return taken < width ? std::string(width - taken, ' ') + text : text;
}

std::string Format(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int size = vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::string text(size > 0 ? static_cast<std::size_t>(size) : 0, '\0');
    vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

std::string Duration(std::uint64_t us) {
    if (us < 1000) {
        return Format("%" PRIu64 " us", us);
    }
    if (us < 999'500) {
        return Scaled(static_cast<double>(us) / 1e3, "ms");
    }
    if (us < 60 * SECOND - SECOND / 20) {
        return Scaled(static_cast<double>(us) / 1e6, "s");
    }
    const std::uint64_t seconds = us / SECOND + (us % SECOND >= SECOND / 2 ? 1 : 0);
    if (seconds < 3600) {
        return Pair(seconds, 60, "min", 1, "s");
    }
    if (seconds >= 10'000 * std::uint64_t{86400}) {
        return Format("%" PRIu64 " d", seconds / 86400);
    }
    return seconds < 86400 ? Pair(seconds, 3600, "h", 60, "min") : Pair(seconds, 86400, "d", 3600, "h");
}

std::string Bytes(std::uint64_t bytes) {
    static constexpr std::array UNITS{"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) {
        return Format("%" PRIu64 " B", bytes);
    }
    double value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    while (value >= 1023.95 && unit + 1 < UNITS.size()) {
        value /= 1024;
        ++unit;
    }
    return Format("%.1f %s", value, UNITS.at(unit));
}

std::string Count(std::uint64_t number) {
    static constexpr std::array UNITS{"M", "G", "T", "P", "E"};
    if (number < 1'000'000) {
        return Format("%" PRIu64, number);
    }
    double value = static_cast<double>(number) / 1e6;
    std::size_t unit = 0;
    while (value >= 999.5 && unit + 1 < UNITS.size()) {
        value /= 1000;
        ++unit;
    }
    return Scaled(value, UNITS.at(unit));
}

std::string DateTime(std::uint64_t us) {
    const auto seconds = static_cast<time_t>(us / SECOND);
    std::tm parts{};
    std::array<char, 64> text{};
    if (localtime_r(&seconds, &parts) == nullptr ||
        strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts) == 0) {
        return Format("%" PRIu64 " s", us / SECOND);  // a year that does not exist
    }
    return text.data();
}

std::string ExactDateTime(std::uint64_t us) {
    return DateTime(us) + Format(".%06" PRIu64, us % SECOND);
}

}  // namespace ternctl
