#include <algorithm>

#include "commands.h"
#include "json.h"
#include "look.h"
#include "output.h"
#include "survey.h"
#include "text.h"
#include "time_of_day.h"

namespace ternctl {

using namespace std::chrono_literals;

namespace {

/// By this machine's clock, which may be another than the service's.
std::uint64_t UptimeOf(const Found& service, std::uint64_t now) {
    return now > service.facts.startedAtUs ? now - service.facts.startedAtUs : 0;
}

void PrintTable(const Survey& survey, std::uint64_t now) {
    const Look look = Look::OfOutput();
    std::size_t width = 4;
    std::size_t versionWidth = 7;
    for (const Found& service : survey.services) {
        width = std::max(width, Width(look.Show(service.name)));
        versionWidth = std::max(versionWidth, Width(look.Show(service.facts.version)));
    }
    const auto print = [&](const std::string& name, const std::string& pid, const std::string& uptime,
                           const std::string& version, const std::string& ended) {
        std::string line = PadRight(name, width) + PadLeft(pid, 9) + PadLeft(uptime, 14) + "  " +
                           PadRight(version, versionWidth) + "  " + ended;
        line.erase(line.find_last_not_of(' ') + 1);
        PrintLine(line);
    };
    print("NAME", "PID", "UP", "VERSION", "FORMER END");
    for (const Found& service : survey.services) {
        std::string ended = look.Show(service.facts.ended);
        if (service.facts.restarts > 0) {
            ended += ", " + Count(service.facts.restarts) +
                     (service.facts.restarts == 1 ? " restart" : " restarts");
        }
        print(look.Show(service.name), service.pid != 0 ? std::to_string(service.pid) : "-",
              Duration(UptimeOf(service, now)), look.Show(service.facts.version), ended);
    }
}

void PrintJson(const Survey& survey, std::uint64_t now) {
    JsonWriter json;
    json.Begin('{').Key("Services").Begin('[');
    for (const Found& service : survey.services) {
        json.Begin('{').Add("Name", service.name).Add("UniqueName", service.owner);
        json.Key("Pid");
        service.pid != 0 ? json.Value(service.pid) : json.Null();
        json.Add("Version", service.facts.version)
            .Add("StartedAtUs", service.facts.startedAtUs)
            .Add("UptimeUs", UptimeOf(service, now))
            .Add("Ended", service.facts.ended)
            .Add("Restarts", service.facts.restarts)
            .Add("LogLevel", service.facts.logLevel)
            .End('}');
    }
    json.End(']').Add("Unanswered", survey.unanswered).Add("Refused", survey.refused).End('}');
    PrintLine(json.GetText());
}

}  // namespace

ExitStatus RunList(const Options& options) {
    const Session session(options);
    const std::chrono::milliseconds limit = session.GetLimit(2s);
    const Survey survey = LookAround(session, limit, nullptr);
    const std::uint64_t now = TimeOfDay();
    if (options.isJson) {
        PrintJson(survey, now);
    } else if (options.isNamesOnly) {
        const Look look = Look::OfOutput();
        for (const Found& service : survey.services) {
            PrintLine(look.Show(service.name));
        }
    } else if (!survey.services.empty()) {
        PrintTable(survey, now);
    }
    TellOfSilent(survey, limit);
    if (survey.services.empty()) {
        Complain("no service on the bus has diagnostics");
        return ExitStatus::NobodyThere;
    }
    return ExitStatus::Done;
}

}  // namespace ternctl
