#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "interrupt.h"
#include "service.h"
#include "session.h"

namespace ternctl {

/// A service with diagnostics.
struct Found {
    std::string name{};
    std::string owner{};    ///< its connection
    std::uint32_t pid = 0;  ///< 0: the bus does not report it
    Facts facts{};
};

/// The services on the bus.
struct Survey {
    std::vector<Found> services{};          ///< with diagnostics, by name
    std::vector<std::string> unanswered{};  ///< names that did not answer in time: nobody knows
    std::vector<std::string> refused{};     ///< names that this process may not ask
};

/// Asks all names on the bus at the same time, each for at most `limit`; starts nobody. Throws Failure.
/// Where `interrupt`, unless null, stops it, what is known by then.
Survey LookAround(const Session& session, std::chrono::milliseconds limit, const Interrupt* interrupt);

/// For people: "did not answer within 2 s: a, b", one line each kind, printed on standard error.
void TellOfSilent(const Survey& survey, std::chrono::milliseconds limit);

}  // namespace ternctl
