#pragma once

#include <string>
#include <vector>

#include "samples.h"

namespace ternctl {

/// The chart of a service as an SVG document: four panels above each other, memory, calls a second, latency
/// and queues, over the same time. A restart is a dashed line, and lines break at it and where samples are
/// missing for longer than `gap` seconds. REQUIRES: at least two samples.
std::string DrawChart(const std::string& service, const std::vector<Sample>& samples, double gap);

}  // namespace ternctl
