#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "chooser.h"

namespace tern::schedules {

/// Goes through all schedules whose options cost no more than the bound together, one a run, the last
/// choice changed first.
class DepthFirst : public Chooser {
public:
    explicit DepthFirst(unsigned bound) : mBound(bound) {}

    std::size_t Choose(std::size_t number, std::span<const Option> options, unsigned running) override;
    /// After a run: prepares the next one; false when there is none.
    bool Next();
    /// Whether a run that repeated former choices met other options than before.
    bool HasDiverged() const { return mHasDiverged; }

private:
    struct Decision {
        std::size_t taken = 0;
        unsigned spent = 0;  ///< before this one
        std::vector<Option> options;
    };

    unsigned mBound;
    bool mHasDiverged = false;
    std::size_t mReached = 0;  ///< decisions of this run
    std::vector<Decision> mDecisions;
};

}  // namespace tern::schedules
