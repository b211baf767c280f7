#pragma once

#include <tern/diagnostics/contract.h>

#include <cstdint>
#include <string>
#include <vector>

#include "json.h"
#include "look.h"

namespace ternctl {

/// As a JSON array of objects.
void Write(JsonWriter& json, const std::vector<mwl::Diagnostics::LoggedMessage>& messages);
/// As a line for people, without its end.
std::string Describe(const mwl::Diagnostics::LoggedMessage& message, const Look& look);

/// Of syslog(3): "warning"; the number of one that it does not know.
std::string NameLevel(std::uint32_t level);
/// The message alone, printable, with a mark where it is cut.
std::string ShowText(const mwl::Diagnostics::LoggedMessage& message, const Look& look);

}  // namespace ternctl
