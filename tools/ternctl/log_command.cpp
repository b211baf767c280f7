#include <algorithm>
#include <cstdint>
#include <optional>
#include <vector>

#include "commands.h"
#include "json.h"
#include "look.h"
#include "message_lines.h"
#include "output.h"
#include "process.h"
#include "service.h"

namespace ternctl {

using Diagnostics::LoggedMessage;

namespace {

void KeepLast(std::vector<LoggedMessage>& messages, const std::optional<std::uint64_t>& last) {
    const std::uint64_t count = last ? std::min<std::uint64_t>(*last, messages.size()) : messages.size();
    messages.erase(messages.begin(), messages.end() - static_cast<std::ptrdiff_t>(count));
}

/// `json` has an open object that says whose they are.
void Show(const Options& options, std::vector<LoggedMessage> messages, JsonWriter& json) {
    KeepLast(messages, options.last);
    if (options.isJson) {
        json.Key("Messages");
        Write(json, messages);
        PrintLine(json.End('}').GetText());
        return;
    }
    const Look look = Look::OfOutput();
    std::string text;
    for (const LoggedMessage& message : messages) {
        text += Describe(message, look) + '\n';
    }
    Print(text);
}

}  // namespace

ExitStatus RunLog(const Options& options) {
    JsonWriter json;
    json.Begin('{');
    if (options.pid) {
        const Process process(*options.pid);
        Show(options, ToMessages(process.OpenRecorder().flight), json.Add("Pid", *options.pid));
        return ExitStatus::Done;
    }
    const Session session(options);
    const Service service(session, options.arguments[0]);
    const std::vector<LoggedMessage> messages = service.GetMessages();
    // Nobody shall take the silence of such a logger for a good sign.
    if (messages.empty() && !service.TakeSnapshot().recorder.hasMessages) {
        Complain("'" + service.GetName() + "' has a logger of its own, whose messages are not kept");
    }
    Show(options, messages, json.Add("Service", service.GetName()));
    return ExitStatus::Done;
}

}  // namespace ternctl
