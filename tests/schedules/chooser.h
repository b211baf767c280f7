#pragma once

#include <cstddef>
#include <span>

#include "option.h"

namespace tern::schedules {

/// Decides at each point who goes on.
class Chooser {
public:
    virtual ~Chooser() = default;
    /// An index into `options`, of which there are at least two. The first is what would happen if nobody
    /// interfered. `number` counts the choices of this run from 0, `running` is the thread that got here.
    virtual std::size_t Choose(std::size_t number, std::span<const Option> options, unsigned running) = 0;
};

}  // namespace tern::schedules
