#include <cstdint>
#include <thread>

#include "commands.h"
#include "findings.h"
#include "json.h"
#include "look.h"
#include "message_lines.h"
#include "output.h"
#include "service.h"
#include "status_page.h"

namespace ternctl {

using namespace std::chrono_literals;

namespace {

/// Between two looks at queues that are not empty: whether they grow.
constexpr auto SECOND_LOOK = 300ms;

Status LookAt(const Options& options) {
    const Session session(options);
    const Service service(session, options.arguments[0]);
    Status status{service.GetName(), service.GetFacts(), service.TakeSnapshot(), {}, {}};
    if (status.figures.recorder.bytes > 0) {
        status.messages = service.GetMessages();
    }
    if (!HasQueues(status.figures)) {
        status.findings = FindTrouble(status.figures, nullptr);
        return status;
    }
    std::this_thread::sleep_for(SECOND_LOOK);
    const Diagnostics::Figures before = std::move(status.figures);
    status.figures = service.TakeSnapshot();
    status.findings = FindTrouble(status.figures, &before);
    return status;
}

}  // namespace

ExitStatus RunStatus(const Options& options) {
    const Status status = LookAt(options);
    if (options.isJson) {
        JsonWriter json;
        json.Begin('{')
            .Add("Service", status.name)
            .Add("Ended", status.facts.ended)
            .Add("Restarts", status.facts.restarts)
            .Add("LogLevel", status.facts.logLevel)
            .Add("Figures", status.figures)
            .Key("Attention")
            .Begin('[');
        for (const Finding& finding : status.findings) {
            json.Value(finding.text);
        }
        json.End(']').Key("Messages");
        Write(json, status.messages);
        json.End('}');
        PrintLine(json.GetText());
        return ExitStatus::Done;
    }
    const Look look = Look::OfOutput();
    std::string page;
    // One row is left for what the shell writes then.
    for (const Line& line : MakeStatusPage(status, look, options.isFull ? SIZE_MAX : look.rows - 1)) {
        page += Render(line, look) + '\n';
    }
    Print(page);
    return ExitStatus::Done;
}

}  // namespace ternctl
