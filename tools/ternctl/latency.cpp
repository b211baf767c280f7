#include "latency.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>
#include <string_view>

namespace ternctl {

Latency::Latency(const std::vector<std::uint32_t>& counts) : Latency() {
    AddSince({}, counts);
}

void Latency::AddSince(const std::vector<std::uint32_t>& before, const std::vector<std::uint32_t>& now) {
    for (std::size_t i = 0; i < std::min(now.size(), BUCKETS); ++i) {
        mCounts[i] += static_cast<std::uint32_t>(now[i] - (i < before.size() ? before[i] : 0));
    }
}

std::uint64_t Latency::GetTotal() const {
    return std::accumulate(mCounts.begin(), mCounts.end(), std::uint64_t{0});
}

double Latency::GetPercentile(double part) const {
    const std::uint64_t total = GetTotal();
    if (total == 0) {
        return 0;
    }
    const auto wanted = static_cast<std::uint64_t>(std::ceil(part * static_cast<double>(total)));
    std::uint64_t counted = 0;
    std::size_t bucket = 0;
    for (; bucket + 1 < BUCKETS; ++bucket) {
        counted += mCounts[bucket];
        if (counted >= std::max<std::uint64_t>(wanted, 1)) {
            break;
        }
    }
    return std::ldexp(1.0, static_cast<int>(bucket));
}

std::string Latency::Draw(bool isUtf8) const {
    static constexpr std::array<std::string_view, 8> HIGH{"\u2581", "\u2582", "\u2583", "\u2584",
                                                          "\u2585", "\u2586", "\u2587", "\u2588"};
    static constexpr std::array<std::string_view, 8> PLAIN{".", ":", "-", "=", "+", "*", "#", "@"};
    const std::uint64_t highest = *std::max_element(mCounts.begin(), mCounts.end());
    std::string drawn;
    for (const std::uint64_t count : mCounts) {
        if (count == 0) {
            drawn += ' ';
            continue;
        }
        const double share = static_cast<double>(count) / static_cast<double>(highest);
        const auto step = std::min(static_cast<std::size_t>(share * 8), HIGH.size() - 1);
        drawn += isUtf8 ? HIGH.at(step) : PLAIN.at(step);
    }
    return drawn;
}

}  // namespace ternctl
