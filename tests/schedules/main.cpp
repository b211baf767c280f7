#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "explorer.h"
#include "scenario.h"
#include "self_test/self_test.h"
#include "suite.h"

namespace {

using namespace tern::schedules;

constexpr const char* USAGE =
    "Usage: schedules --list\n"
    "       schedules --self-test\n"
    "       schedules NAME --suite [SECONDS]\n"
    "       schedules NAME --depth-first [--bound N] [--limit SCHEDULES] [--seconds N]\n"
    "       schedules NAME --random COUNT [--seed N] [--seconds N]\n"
    "       schedules NAME --seed N\n"
    "       schedules NAME --replay CHOICES\n";

bool ParseNumber(std::string_view text, std::uint64_t& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

int Tell(const Explorer::Result& result, bool always) {
    std::printf("%zu schedules%s, %.0f a second, at most %zu choices\n", result.schedules,
                result.isComplete ? ", all of them" : "",
                static_cast<double>(result.schedules) / std::max(result.seconds, 1e-9), result.mostChoices);
    if (result.hasFailed || always) {
        std::printf("%s", result.report.c_str());
    }
    if (result.hasFailed) {
        std::printf("replay: --replay %s\n", result.choices.c_str());
    }
    return result.hasFailed ? 1 : 0;
}

int Run(const Scenario& scenario, int count, char** arguments) {
    const Explorer explorer(scenario);
    Explorer::Bounds bounds;
    std::string_view way;
    std::string replay;
    std::uint64_t seed = 1;
    bool hasSeed = false;
    std::uint64_t seconds = 4;
    for (int index = 0; index < count; ++index) {
        const std::string_view option = arguments[index];
        const char* const value = index + 1 < count ? arguments[index + 1] : nullptr;
        std::uint64_t number = 0;
        const bool hasNumber = value != nullptr && ParseNumber(value, number);
        if (option == "--depth-first") {
            way = option;
        } else if (option == "--suite") {
            way = option;
            seconds = hasNumber ? number : seconds;
            index += hasNumber ? 1 : 0;
        } else if (option == "--replay" && value != nullptr) {
            way = option;
            replay = value;
            ++index;
        } else if (option == "--random" && hasNumber) {
            way = option;
            bounds.schedules = number;
            ++index;
        } else if (option == "--bound" && hasNumber) {
            bounds.preemptions = static_cast<unsigned>(number);
            ++index;
        } else if (option == "--limit" && hasNumber) {
            bounds.schedules = number;
            ++index;
        } else if (option == "--seconds" && hasNumber) {
            bounds.time = std::chrono::seconds(number);
            ++index;
        } else if (option == "--seed" && hasNumber) {
            seed = number;
            hasSeed = true;
            ++index;
        } else {
            std::fputs(USAGE, stderr);
            return 2;
        }
    }
    if (way == "--suite") {
        return RunSuite(scenario, std::chrono::seconds(seconds));
    }
    if (way == "--depth-first") {
        return Tell(explorer.RunDepthFirst(bounds), false);
    }
    if (way == "--replay") {
        return Tell(explorer.Replay(replay), true);
    }
    if (way == "--random") {
        return Tell(explorer.RunRandom(seed, bounds), false);
    }
    if (hasSeed) {
        bounds.schedules = 1;
        return Tell(explorer.RunRandom(seed, bounds), true);
    }
    std::fputs(USAGE, stderr);
    return 2;
}

}  // namespace

int main(int count, char** arguments) {
    // Messages would be points of their own.
    setenv("TERN_LOG_LEVEL", "0", 1);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (count < 2) {
        std::fputs(USAGE, stderr);
        return 2;
    }
    if (std::strcmp(arguments[1], "--list") == 0) {
        for (const Scenario& scenario : Scenario::All()) {
            std::printf("%-32s %s\n", scenario.name, scenario.about);
        }
        return 0;
    }
    if (std::strcmp(arguments[1], "--self-test") == 0) {
        return RunSelfTest();
    }
    for (const Scenario& scenario : Scenario::All()) {
        if (std::strcmp(arguments[1], scenario.name) == 0) {
            return Run(scenario, count - 2, arguments + 2);
        }
    }
    std::fprintf(stderr, "no scenario is named %s, see --list\n", arguments[1]);
    return 2;
}
