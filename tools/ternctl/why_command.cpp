#include <array>
#include <string_view>

#include "commands.h"
#include "json.h"
#include "look.h"
#include "output.h"
#include "service.h"
#include "text.h"

namespace ternctl {

namespace {

struct Kind {
    std::string_view name;
    const char* sentence;
};
constexpr std::array KINDS{
    Kind{"none", "there was no former life, or nobody handed on how it ended"},
    Kind{"stopped", "its former life was stopped in order"},
    Kind{"failed", "its former life ended itself, in order, after a failure"},
    Kind{"blocked", "in its former life a watched thread was blocked, and the watcher killed it"},
    Kind{"exception", "its former life ended with an exception"},
    Kind{"hanging", "its former life ended within a handler, job or run that took more than a second"},
    Kind{"lost-bus", "its former life lost the bus"},
    Kind{"cut-off", "its former life just ended: a signal, a crash, or the power"},
    Kind{"unreadable", "what its former life handed on cannot be read: it is of another version, or damaged"},
};

std::string SentenceOf(const std::string& name) {
    for (const Kind& kind : KINDS) {
        if (kind.name == name) {
            return kind.sentence;
        }
    }
    return "its former life ended: " + name;
}

}  // namespace

ExitStatus RunWhy(const Options& options) {
    const Session session(options);
    const Service service(session, options.arguments[0]);
    const Facts facts = service.GetFacts();
    const auto [kind, sentences] = service.Why();
    if (options.isJson) {
        JsonWriter json;
        json.Begin('{')
            .Add("Service", service.GetName())
            .Add("Ended", kind)
            .Add("Restarts", facts.restarts)
            .Add("StartedAtUs", facts.startedAtUs)
            .Add("Sentences", sentences)
            .End('}');
        PrintLine(json.GetText());
        return ExitStatus::Done;
    }
    const Look look = Look::OfOutput();
    const std::string times = facts.restarts == 0 ? "has not been restarted"
                              : facts.restarts == 1
                                  ? "has been restarted once"
                                  : "has been restarted " + Count(facts.restarts) + " times";
    PrintLine(look.Show(service.GetName()) + " runs since " + DateTime(facts.startedAtUs) + " and " + times +
              "; " + look.Show(SentenceOf(kind)) + ".");
    for (const std::string& sentence : sentences) {
        PrintLine("  " + look.Show(sentence));
    }
    return ExitStatus::Done;
}

}  // namespace ternctl
