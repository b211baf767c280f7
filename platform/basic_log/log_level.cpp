#include "log_level.h"

#include <strings.h>

namespace mwl::Log {

namespace {

struct Name {
    const char* text;
    unsigned char level;
};

constexpr Name NAMES[] = {{"critical", 2}, {"error", 3}, {"warning", 4},
                          {"notice", 5},   {"info", 6},  {"debug", 7}};

}  // namespace

bool ParseLogLevel(const char* text, unsigned char fallback, unsigned char& level) noexcept {
    level = fallback;
    if (text == nullptr || *text == '\0') {
        return true;
    }
    if (text[0] >= '0' && text[0] <= '7' && text[1] == '\0') {
        level = static_cast<unsigned char>(text[0] - '0');
        return true;
    }
    for (const Name& name : NAMES) {
        if (strcasecmp(text, name.text) == 0) {
            level = name.level;
            return true;
        }
    }
    return false;
}

}  // namespace mwl::Log
