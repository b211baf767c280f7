#include "message_lines.h"

#include <array>

#include "text.h"

namespace ternctl {

using mwl::Diagnostics::LoggedMessage;

namespace {

constexpr std::array<const char*, 8> LEVELS{"emergency", "alert",  "critical", "error",
                                            "warning",   "notice", "info",     "debug"};

}  // namespace

void Write(JsonWriter& json, const std::vector<LoggedMessage>& messages) {
    json.Begin('[');
    for (const LoggedMessage& message : messages) {
        json.Begin('{')
            .Add("AtUs", message.atUs)
            .Add("Level", message.level)
            .Add("Text", message.text)
            .Add("IsCut", message.isCut)
            .End('}');
    }
    json.End(']');
}

std::string Describe(const LoggedMessage& message, const Look& look) {
    return ExactDateTime(message.atUs) + "  " + PadRight(NameLevel(message.level), 8) + "  " +
           ShowText(message, look);
}

std::string NameLevel(std::uint32_t level) {
    return level < LEVELS.size() ? LEVELS[level] : std::to_string(level);
}

std::string ShowText(const LoggedMessage& message, const Look& look) {
    std::string text = look.Show(message.text);
    if (message.isCut) {
        text += look.GetMore();
    }
    return text;
}

}  // namespace ternctl
