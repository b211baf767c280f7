#include "latencies.h"

#include <algorithm>
#include <cmath>

namespace soak {

void Latencies::Add(std::chrono::microseconds latency) {
    const double us = std::max(1.0, static_cast<double>(latency.count()));
    ++mCounts[std::min(static_cast<std::size_t>(std::log(us) / std::log(STEP)), CLASSES - 1)];
}

Latencies& Latencies::operator+=(const Latencies& other) {
    for (std::size_t i = 0; i < CLASSES; ++i) {
        mCounts[i] += other.mCounts[i];
    }
    return *this;
}

Latencies& Latencies::operator-=(const Latencies& other) {
    for (std::size_t i = 0; i < CLASSES; ++i) {
        mCounts[i] -= other.mCounts[i];
    }
    return *this;
}

std::string Latencies::ToText() const {
    std::string text;
    for (std::size_t i = 0; i < CLASSES; ++i) {
        if (mCounts[i] != 0) {
            text += (text.empty() ? "" : " ") + std::to_string(i) + ":" + std::to_string(mCounts[i]);
        }
    }
    return text;
}

}  // namespace soak
