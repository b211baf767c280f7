#include "depth_first.h"

namespace tern::schedules {

std::size_t DepthFirst::Choose(std::size_t number, std::span<const Option> options, unsigned /*running*/) {
    mReached = number + 1;
    if (number < mDecisions.size()) {
        const Decision& decision = mDecisions[number];
        if (decision.options.size() != options.size()) {
            mHasDiverged = true;
            return 0;
        }
        return decision.taken;
    }
    unsigned spent = 0;
    if (!mDecisions.empty()) {
        const Decision& former = mDecisions.back();
        spent = former.spent + former.options[former.taken].cost;
    }
    mDecisions.push_back({0, spent, {options.begin(), options.end()}});
    return 0;
}

bool DepthFirst::Next() {
    // A run that ended sooner than the one before it has no choices behind its end.
    mDecisions.resize(std::min(mDecisions.size(), mReached));
    while (!mDecisions.empty()) {
        Decision& last = mDecisions.back();
        while (++last.taken < last.options.size()) {
            if (last.spent + last.options[last.taken].cost <= mBound) {
                return true;
            }
        }
        mDecisions.pop_back();
    }
    return false;
}

}  // namespace tern::schedules
