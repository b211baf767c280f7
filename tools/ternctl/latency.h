#pragma once

#include <tern/diagnostics/contract.h>

#include <cstdint>
#include <string>
#include <vector>

namespace ternctl {

/// Counts of a latency histogram, see mwl::Diagnostics::LATENCY_BUCKETS.
class Latency {
public:
    static constexpr std::size_t BUCKETS = mwl::Diagnostics::LATENCY_BUCKETS;

    Latency() : mCounts(BUCKETS) {}
    /// As a service sent it: of any length.
    explicit Latency(const std::vector<std::uint32_t>& counts);

    /// Adds what came between two looks; the counters go round.
    void AddSince(const std::vector<std::uint32_t>& before, const std::vector<std::uint32_t>& now);
    std::uint64_t GetTotal() const;
    /// The time that `part` (0 to 1) of all stayed below, in microseconds: that of its bucket's end; 0
    /// without any.
    double GetPercentile(double part) const;
    /// A column for each bucket, the more the higher.
    std::string Draw(bool isUtf8) const;
    /// The line above it: where 1 us, 1 ms and 1 s begin.
    static const char* GetScale() { return " |1us      |1ms      |1s"; }

private:
    std::vector<std::uint64_t> mCounts;
};

}  // namespace ternctl
