#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace soak {

/// How many calls took how long, in classes each 5 percent wider than the one before. One thread at a time.
class Latencies {
public:
    static constexpr double STEP = 1.05;
    /// The last class, from about 45 minutes, takes all that is longer.
    static constexpr std::size_t CLASSES = 450;

    void Add(std::chrono::microseconds latency);
    Latencies& operator+=(const Latencies& other);
    Latencies& operator-=(const Latencies& other);
    /// "CLASS:CALLS CLASS:CALLS ...": class n holds what took from STEP to the power n microseconds on.
    std::string ToText() const;

private:
    std::array<std::uint64_t, CLASSES> mCounts{};
};

}  // namespace soak
