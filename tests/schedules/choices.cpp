#include "choices.h"

#include <algorithm>
#include <charconv>

namespace tern::schedules {

namespace {

bool TakeNumber(std::string_view& text, std::size_t& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc()) {
        return false;
    }
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return true;
}

bool TakeCharacter(std::string_view& text, char character) {
    if (text.empty() || text.front() != character) {
        return false;
    }
    text.remove_prefix(1);
    return true;
}

}  // namespace

Choices::Choices(std::span<const unsigned char> taken) {
    for (std::size_t number = 0; number < taken.size(); ++number) {
        if (taken[number] != 0) {
            mTaken[number] = taken[number];
        }
    }
}

bool Choices::Parse(std::string_view text) {
    std::map<std::size_t, std::size_t> taken;
    if (text != "-") {
        do {
            std::size_t number = 0;
            std::size_t option = 0;
            if (!TakeNumber(text, number) || !TakeCharacter(text, ':') || !TakeNumber(text, option)) {
                return false;
            }
            taken[number] = option;
        } while (TakeCharacter(text, ','));
        if (!text.empty()) {
            return false;
        }
    }
    mTaken = std::move(taken);
    return true;
}

std::string Choices::GetText() const {
    std::string text;
    for (const auto& [number, option] : mTaken) {
        text += (text.empty() ? "" : ",") + std::to_string(number) + ":" + std::to_string(option);
    }
    return text.empty() ? "-" : text;
}

std::size_t Choices::Choose(std::size_t number, std::span<const Option> options, unsigned /*running*/) {
    const auto found = mTaken.find(number);
    return found == mTaken.end() ? 0 : std::min(found->second, options.size() - 1);
}

}  // namespace tern::schedules
