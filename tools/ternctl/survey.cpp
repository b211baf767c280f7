#include "survey.h"

#include <tern/typed/decode.h>

#include <algorithm>
#include <map>
#include <optional>

#include "message_bus.h"
#include "output.h"
#include "parallel_calls.h"
#include "text.h"

namespace ternctl {

using Diagnostics::Diagnostics1;
using mw::tern::StatusCode;
using Typed::Any;
using Typed::Outcome;

namespace {

std::string Join(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

}  // namespace

Survey LookAround(const Session& session, std::chrono::milliseconds limit, const Interrupt* interrupt) {
    Survey survey;
    ParallelCalls calls(session.GetBus(), limit);
    std::map<std::string, Found> found;
    const auto onFacts = [&survey, &found](const std::string& name, sd_bus_message* reply) {
        const auto properties = Typed::Decode<std::map<std::string, Any>>(reply);
        if (properties.IsOk()) {
            if (std::optional<Facts> facts = ReadFacts(*properties)) {
                found[name].facts = *std::move(facts);
                return;
            }
        } else if (properties.GetError().GetStatus() == StatusCode::Timeout) {
            survey.unanswered.push_back(name);
        } else if (properties.GetError().GetStatus() == StatusCode::AccessDenied) {
            survey.refused.push_back(name);
        }
        found.erase(name);
    };
    const auto ask = [&](const std::string& name, const std::string& owner) {
        found[name].name = name;
        found[name].owner = owner;
        calls.Add(MessageBus::NAME, MessageBus::PATH, MessageBus::NAME,
                  MessageBus::GetConnectionUnixProcessID.name, {owner},
                  [&found, name](sd_bus_message* reply) {
                      const Outcome<std::uint32_t> pid = Typed::Decode<std::uint32_t>(reply);
                      if (const auto it = found.find(name); pid.IsOk() && it != found.end()) {
                          it->second.pid = *pid;
                      }
                  });
        calls.Add(owner, Diagnostics1::PATH, "org.freedesktop.DBus.Properties", "GetAll",
                  {Diagnostics1::NAME}, [onFacts, name](sd_bus_message* reply) { onFacts(name, reply); });
    };
    for (const std::string& name : session.ListNames()) {
        if (name == MessageBus::NAME) {
            continue;
        }
        calls.Add(MessageBus::NAME, MessageBus::PATH, MessageBus::NAME, MessageBus::GetNameOwner.name, {name},
                  [&ask, name](sd_bus_message* reply) {
                      // Without an owner by now it has left.
                      if (const Outcome<std::string> owner = Typed::Decode<std::string>(reply);
                          owner.IsOk()) {
                          ask(name, *owner);
                      }
                  });
    }
    calls.Run(interrupt);
    for (auto& [name, service] : found) {
        survey.services.push_back(std::move(service));
    }
    std::sort(survey.unanswered.begin(), survey.unanswered.end());
    std::sort(survey.refused.begin(), survey.refused.end());
    return survey;
}

void TellOfSilent(const Survey& survey, std::chrono::milliseconds limit) {
    if (!survey.unanswered.empty()) {
        Complain("did not answer within " + Duration(static_cast<std::uint64_t>(limit.count()) * 1000) +
                 ": " + Join(survey.unanswered));
    }
    if (!survey.refused.empty()) {
        Complain("not asked, as the bus's policy forbids it (root may know more): " + Join(survey.refused));
    }
}

}  // namespace ternctl
