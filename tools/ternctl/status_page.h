#pragma once

#include <tern/diagnostics/contract.h>

#include <string>
#include <vector>

#include "findings.h"
#include "look.h"
#include "service.h"

namespace ternctl {

/// The content of a page.
struct Status {
    std::string name;
    Facts facts;
    Diagnostics::Figures figures;
    std::vector<Finding> findings;
    std::vector<Diagnostics::LoggedMessage> messages;  ///< oldest first
};

/// The page of a service: at most `rows` lines of `look.columns`. Where there is more of something than
/// there is room for, what deserves attention comes first and the rest is counted.
std::vector<Line> MakeStatusPage(const Status& status, const Look& look, std::size_t rows);

}  // namespace ternctl
