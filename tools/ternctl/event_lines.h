#pragma once

#include <tern/diagnostics/contract.h>

#include <cstdint>
#include <string>

#include "json.h"
#include "look.h"

namespace ternctl {

/// As a JSON object.
void Write(JsonWriter& json, const mwl::Diagnostics::RecordedEvent& event);
/// As a line for people, without its end.
std::string Describe(const mwl::Diagnostics::RecordedEvent& event, const Look& look);
/// A line that says how many events are missing. REQUIRES: some are.
std::string DescribeLost(std::uint64_t lost);

}  // namespace ternctl
