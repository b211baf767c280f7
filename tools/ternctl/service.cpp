#include "service.h"

#include <tern/typed/blocking_untyped_proxy.h>

#include <utility>

namespace ternctl {

using Diagnostics::Diagnostics1;
using Typed::Any;

namespace {

template <class T>
T ValueOf(const std::map<std::string, Any>& properties, const char* name) {
    const auto found = properties.find(name);
    return found == properties.end() ? T{} : found->second.As<T>().value_or(T{});
}

}  // namespace

std::optional<Facts> ReadFacts(const std::map<std::string, Any>& properties) {
    // Some libraries answer with nothing for an interface that they do not have.
    if (!properties.contains(Diagnostics1::StartedAt.name) ||
        !properties.contains(Diagnostics1::Ended.name)) {
        return std::nullopt;
    }
    Facts facts;
    facts.version = ValueOf<std::string>(properties, Diagnostics1::Version.name);
    facts.ended = ValueOf<std::string>(properties, Diagnostics1::Ended.name);
    facts.logLevel = ValueOf<std::string>(properties, Diagnostics1::LogLevel.name);
    facts.startedAtUs = ValueOf<std::uint64_t>(properties, Diagnostics1::StartedAt.name);
    facts.restarts = ValueOf<std::uint32_t>(properties, Diagnostics1::Restarts.name);
    return facts;
}

Service::Service(const Session& session, std::string name)
    : mName(std::move(name)),
      mOwner(session.FindOwner(mName)),
      mLimit(session.GetLimit()),
      mProxy(session.GetBus(), mOwner, Diagnostics1::PATH) {
    mProxy.SetTimeout(mLimit);
}

Diagnostics::Figures Service::TakeSnapshot() const {
    return Take(mProxy.Call(Diagnostics1::Snapshot));
}

std::vector<Diagnostics::LoggedMessage> Service::GetMessages() const {
    return Take(mProxy.Call(Diagnostics1::GetMessages));
}

Typed::Results<std::uint64_t, std::uint64_t, std::vector<Diagnostics::RecordedEvent>> Service::GetEvents(
    std::uint64_t after, std::uint32_t most) const {
    return Take(mProxy.Call(Diagnostics1::GetEvents, after, most));
}

Typed::Results<std::string, std::vector<std::string>> Service::Why() const {
    return Take(mProxy.Call(Diagnostics1::Why));
}

Facts Service::GetFacts() const {
    const Typed::BlockingUntypedProxy object =
        Typed::BlockingUntypedProxy(mProxy.GetBus(), mOwner, Diagnostics1::PATH).Within(mLimit);
    if (std::optional<Facts> facts = ReadFacts(Take(object.GetAll(Diagnostics1::NAME)))) {
        return *std::move(facts);
    }
    throw Failure(Cause::NoDiagnostics, "'" + mName + "' has no diagnostics");
}

std::string Service::GetLogLevel() const {
    return Take(mProxy.Get(Diagnostics1::LogLevel));
}

void Service::SetLogLevel(const std::string& level) const {
    const Typed::Outcome<void> outcome = mProxy.Call(Diagnostics1::SetLogLevel, std::string_view(level));
    if (!outcome.IsOk()) {
        throw Explain(outcome.GetError(), mName, mLimit);
    }
}

}  // namespace ternctl
