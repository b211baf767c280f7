#include <algorithm>
#include <array>
#include <string_view>

#include "commands.h"
#include "json.h"
#include "look.h"
#include "output.h"
#include "service.h"

namespace ternctl {

namespace {

constexpr std::array<std::string_view, 6> LEVELS{"critical", "error", "warning", "notice", "info", "debug"};

}  // namespace

ExitStatus RunLogLevel(const Options& options) {
    const bool isSetting = options.arguments.size() == 2;
    if (isSetting && std::find(LEVELS.begin(), LEVELS.end(), options.arguments[1]) == LEVELS.end()) {
        throw WrongUse("'" + options.arguments[1] +
                       "' is no level: critical, error, warning, notice, info or debug");
    }
    const Session session(options);
    const Service service(session, options.arguments[0]);
    if (isSetting) {
        service.SetLogLevel(options.arguments[1]);
    }
    if (options.isJson) {
        JsonWriter json;
        json.Begin('{').Add("Service", service.GetName()).Add("LogLevel", service.GetLogLevel()).End('}');
        PrintLine(json.GetText());
    } else if (!isSetting) {
        PrintLine(Look::OfOutput().Show(service.GetLogLevel()));
    }
    return ExitStatus::Done;
}

}  // namespace ternctl
