#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <random>
#include <span>
#include <vector>

#include "chooser.h"

namespace tern::schedules {

/// Each thread has a random priority and the highest one goes on; at a few random points the thread that
/// runs gets the lowest. Time-outs, expiries and wake-ups for no reason come at random, with some seeds often
/// and with some never. All of it follows from the seed.
class RandomPriorities : public Chooser {
public:
    /// `length` is about how many choices a run has.
    RandomPriorities(std::uint64_t seed, std::size_t length);

    std::size_t Choose(std::size_t number, std::span<const Option> options, unsigned running) override;

private:
    std::uint64_t Draw(std::uint64_t below) { return mRandom() % below; }
    std::uint64_t& PriorityOf(unsigned thread);

    std::mt19937_64 mRandom;
    std::uint64_t mDisturbance;  ///< one in so many; 0: none
    std::uint64_t mLowest = 0;
    std::array<std::uint64_t, 256> mPriorities{};  ///< 0: not drawn yet
    std::vector<std::size_t> mChanges;
};

}  // namespace tern::schedules
