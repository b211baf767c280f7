#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "failure.h"

namespace ternctl {

/// The content of the command line.
struct Options {
    std::string command{};
    std::vector<std::string> arguments{};  ///< of the command, as many as it takes

    bool isJson = false;
    bool isHelp = false;
    bool isVersion = false;
    bool isUserBus = false;
    std::optional<std::string> address{};
    std::optional<std::string> host{};
    std::optional<std::chrono::milliseconds> limit{};  ///< of each call

    bool isFollowing = false;                ///< events
    std::optional<std::uint64_t> last{};     ///< events, log
    std::optional<std::uint32_t> pid{};      ///< events, log: in place of a name
    std::chrono::milliseconds period{1000};  ///< top
    std::optional<std::uint64_t> count{};    ///< top
    bool isFull = false;                     ///< status, events
    bool isNamesOnly = false;                ///< list
};

/// Wrong use: said together with where help is.
class WrongUse : public Failure {
public:
    explicit WrongUse(const std::string& text) : Failure(Cause::WrongUse, text) {}
};

/// Throws WrongUse.
Options ReadOptions(int argc, char* argv[]);

/// The whole text as a decimal number from `low` to `high`. Throws WrongUse, "'TEXT' is no WHAT".
std::uint64_t ReadWhole(const std::string& text, std::uint64_t low, std::uint64_t high, const char* what);
/// As above, of seconds with at most three decimals.
std::chrono::milliseconds ReadSeconds(const std::string& text, std::chrono::milliseconds low,
                                      std::chrono::milliseconds high, const char* what);

}  // namespace ternctl
