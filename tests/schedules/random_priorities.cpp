#include "random_priorities.h"

#include <algorithm>

namespace tern::schedules {

namespace {

/// Drawn priorities lie above those that are given at changes.
constexpr std::uint64_t LOWEST_DRAWN = std::uint64_t{1} << 32;

}  // namespace

RandomPriorities::RandomPriorities(std::uint64_t seed, std::size_t length) : mRandom(seed) {
    constexpr std::array<std::uint64_t, 4> DISTURBANCES{0, 64, 16, 4};
    mDisturbance = DISTURBANCES[Draw(DISTURBANCES.size())];
    mLowest = LOWEST_DRAWN - 1;
    for (std::uint64_t changes = Draw(4); changes > 0; --changes) {
        mChanges.push_back(Draw(std::max<std::size_t>(length, 1)));
    }
}

std::uint64_t& RandomPriorities::PriorityOf(unsigned thread) {
    std::uint64_t& priority = mPriorities[thread];
    if (priority == 0) {
        priority = LOWEST_DRAWN + (mRandom() >> 1);
    }
    return priority;
}

std::size_t RandomPriorities::Choose(std::size_t number, std::span<const Option> options, unsigned running) {
    if (options.front().kind == Option::Kind::Wake) {
        return Draw(options.size());
    }
    if (std::find(mChanges.begin(), mChanges.end(), number) != mChanges.end()) {
        PriorityOf(running) = mLowest--;
    }
    const auto isRun = [](const Option& option) { return option.kind == Option::Kind::Run; };
    const auto disturbances = static_cast<std::size_t>(
        std::count_if(options.begin(), options.end(), [&](const Option& option) { return !isRun(option); }));
    // Where nobody can run somebody must be taken.
    const bool disturbs = disturbances > 0 &&
                          (disturbances == options.size() || (mDisturbance != 0 && Draw(mDisturbance) == 0));
    if (disturbs) {
        const bool isForced = disturbances == options.size();
        if (isForced && (mDisturbance == 0 || Draw(4) != 0)) {
            return 0;
        }
        std::size_t left = Draw(disturbances);
        for (std::size_t index = 0; index < options.size(); ++index) {
            if (!isRun(options[index]) && left-- == 0) {
                return index;
            }
        }
    }
    std::size_t best = 0;
    for (std::size_t index = 1; index < options.size(); ++index) {
        if (isRun(options[index]) && PriorityOf(options[index].thread) > PriorityOf(options[best].thread)) {
            best = index;
        }
    }
    return best;
}

}  // namespace tern::schedules
