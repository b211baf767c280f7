#include "event_lines.h"

#include <cinttypes>

#include "text.h"

namespace ternctl {

using mwl::Diagnostics::RecordedEvent;

void Write(JsonWriter& json, const RecordedEvent& event) {
    json.Begin('{')
        .Add("Sequence", event.sequence)
        .Add("AtUs", event.atUs)
        .Add("ThreadId", event.threadId)
        .Add("Event", event.event)
        .Add("Name", event.name)
        .Add("Value", event.value)
        .End('}');
}

std::string Describe(const RecordedEvent& event, const Look& look) {
    std::string value;
    if (event.event.ends_with("_ended")) {
        value = event.value < 1000 ? Format("%" PRIu64 " ns", event.value) : Duration(event.value / 1000);
    } else if (event.value != 0) {
        value = Format("%" PRIu64, event.value);
    }
    std::string line =
        ExactDateTime(event.atUs) + PadLeft(event.threadId != 0 ? std::to_string(event.threadId) : "-", 9) +
        "  " + PadRight(look.Show(event.event), 15) + "  " + PadLeft(value, 9) + "  " + look.Show(event.name);
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

std::string DescribeLost(std::uint64_t lost) {
    return "-- " + Count(lost) + (lost == 1 ? " event was" : " events were") + " overwritten --";
}

}  // namespace ternctl
