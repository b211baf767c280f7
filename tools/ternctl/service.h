#pragma once

#include <tern/diagnostics/contract.h>
#include <tern/typed/blocking_proxy.h>

#include <cstdint>
#include <map>
#include <string>

#include "session.h"

namespace ternctl {

namespace Diagnostics = mwl::Diagnostics;

/// The figures of a service that everybody may read.
struct Facts {
    std::string version{};
    std::string ended{};  ///< kind of the former life's end
    std::string logLevel{};
    std::uint64_t startedAtUs = 0;
    std::uint32_t restarts = 0;
};
/// Of a reply to GetAll; nothing where it is not of an object with diagnostics.
std::optional<Facts> ReadFacts(const std::map<std::string, Typed::Any>& properties);

/// A service with diagnostics, by the connection that has its name when this is created: its next life is
/// another one. Nothing here starts a service. Every operation throws Failure.
class Service {
public:
    Service(const Session& session, std::string name);

    const std::string& GetName() const { return mName; }
    const std::string& GetOwner() const { return mOwner; }

    Diagnostics::Figures TakeSnapshot() const;
    std::vector<Diagnostics::LoggedMessage> GetMessages() const;
    Typed::Results<std::uint64_t, std::uint64_t, std::vector<Diagnostics::RecordedEvent>> GetEvents(
        std::uint64_t after, std::uint32_t most) const;
    Typed::Results<std::string, std::vector<std::string>> Why() const;
    Facts GetFacts() const;
    std::string GetLogLevel() const;
    void SetLogLevel(const std::string& level) const;

private:
    /// The value of the outcome.
    template <class T>
    T Take(Typed::Outcome<T> outcome) const {
        if (!outcome.IsOk()) {
            throw Explain(outcome.GetError(), mName, mLimit);
        }
        return *std::move(outcome);
    }

    std::string mName;
    std::string mOwner;
    std::chrono::milliseconds mLimit;
    Typed::BlockingProxy<Diagnostics::Diagnostics1> mProxy;
};

}  // namespace ternctl
