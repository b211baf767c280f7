#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "typed/log_limit.h"

namespace mwl::Typed {

class NameOwner;

/// The common state of a bus's clients that watch peers. D-Bus thread only.
struct Watching {
    /// By name; one that nobody needs any more takes itself out.
    std::map<std::string, std::weak_ptr<NameOwner>> owners;
    /// Signals whose content was not that of the contract.
    std::uint64_t wrongSignals = 0;
    /// Values of properties that were not of the contract's type, or not among its values.
    std::uint64_t wrongProperties = 0;
    /// For what a peer can provoke.
    LogLimit limit;
};

}  // namespace mwl::Typed
