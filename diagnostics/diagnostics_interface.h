#pragma once

#include <tern/diagnostics/contract.h>
#include <tern/typed/bus.h>
#include <tern/typed/implements.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "diagnostics/bus_watch.h"

namespace mwl::Diagnostics {

/// The object behind tern.Diagnostics1. D-Bus thread only.
class DiagnosticsInterface final : public Typed::Implements<DiagnosticsInterface, Diagnostics1> {
public:
    /// Bus and watch outlive it.
    DiagnosticsInterface(Typed::Bus& bus, const BusWatch& watch, std::string_view version);

    /// Which function is which member.
    static constexpr auto Describe() {
        using Typed::Bind;
        using Self = DiagnosticsInterface;
        return Typed::Bindings<
            Bind<Diagnostics1::Snapshot, &Self::Snapshot>,
            Bind<Diagnostics1::GetMessages, &Self::GetMessages>,
            Bind<Diagnostics1::GetEvents, &Self::GetEvents>,
            Bind<Diagnostics1::OpenRecorder, &Self::OpenRecorder>, Bind<Diagnostics1::Why, &Self::Why>,
            Bind<Diagnostics1::SetLogLevel, &Self::SetLogLevel>,
            Bind<Diagnostics1::LogLevel, &Self::GetLogLevel>, Bind<Diagnostics1::Version, &Self::mVersion>,
            Bind<Diagnostics1::StartedAt, &Self::mStartedAtUs>,
            Bind<Diagnostics1::Restarts, &Self::mRestarts>, Bind<Diagnostics1::Ended, &Self::mEnded>>();
    }

private:
    using Events = Typed::Results<std::uint64_t, std::uint64_t, std::vector<RecordedEvent>>;
    using Reasons = Typed::Results<std::string, std::vector<std::string>>;

    Figures Snapshot() const;
    Typed::Outcome<std::vector<LoggedMessage>> GetMessages() const;
    Typed::Outcome<Events> GetEvents(std::uint64_t after, std::uint32_t most) const;
    Typed::Outcome<Typed::OwnedFd> OpenRecorder() const;
    Reasons Why() const;
    Typed::Outcome<void> SetLogLevel(const std::string& level);
    std::string GetLogLevel() const;

    ProcessFigures GetProcess() const;
    ConnectionFigures GetConnection() const;
    void AddObjects(Figures& figures) const;

    Typed::Bus& mBus;
    const BusWatch& mWatch;
    std::string mVersion;
    std::uint64_t mStartedAtUs = 0;
    std::uint64_t mStartedBootNs = 0;  ///< CLOCK_BOOTTIME; 0 when not known
    std::uint32_t mRestarts = 0;
    std::string mEnded;
    std::vector<std::string> mSentences;
};

}  // namespace mwl::Diagnostics
