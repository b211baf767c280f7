#pragma once

#include <cstddef>
#include <map>
#include <span>
#include <string>
#include <string_view>

#include "chooser.h"

namespace tern::schedules {

/// A schedule as a text, "17:2,45:1": at choice 17 option 2 was taken, at 45 option 1, elsewhere option 0.
class Choices : public Chooser {
public:
    Choices() = default;
    /// Of a run; each byte is the option taken.
    explicit Choices(std::span<const unsigned char> taken);
    /// Takes the text apart. False, with nothing changed, when it is no such text.
    bool Parse(std::string_view text);
    /// "-" when nothing differs from option 0.
    std::string GetText() const;

    /// Replays. An option that is not there this time is replaced by the last one that is.
    std::size_t Choose(std::size_t number, std::span<const Option> options, unsigned running) override;

private:
    std::map<std::size_t, std::size_t> mTaken;
};

}  // namespace tern::schedules
