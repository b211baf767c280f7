#pragma once

#include <tern/diagnostics/contract.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "latency.h"

namespace ternctl {

/// A chart's figures of one moment.
struct Sample {
    double seconds = 0;           ///< since the first look
    std::uint64_t takenAtUs = 0;  ///< of day, by the service's clock
    bool isNewLife = false;       ///< another process than the sample before
    std::uint64_t memoryBytes = 0;
    std::uint64_t queuedIn = 0;
    std::uint64_t queuedOut = 0;
    std::uint64_t waitingJobs = 0;
    std::uint64_t poolJobs = 0;        ///< of all pools, not taken yet
    std::uint64_t pipeMessages = 0;    ///< in all pipes
    std::optional<double> calls{};     ///< a second, since the sample before
    std::optional<double> medianUs{};  ///< latency of the calls since then; none without calls
    std::optional<double> highUs{};    ///< the 99th percentile
};

/// Makes samples of looks at a service. The calls that looking itself makes are left out.
class Sampler {
public:
    /// `seconds` since the first look.
    void Add(double seconds, const std::string& owner, const mwl::Diagnostics::Figures& figures);
    const std::vector<Sample>& GetSamples() const { return mSamples; }

private:
    void Compare(Sample& sample, const mwl::Diagnostics::Figures& now) const;

    std::vector<Sample> mSamples;
    std::string mOwner;
    mwl::Diagnostics::Figures mFormer;
};

}  // namespace ternctl
