// Lets every call that our libraries make fail once, in every scenario, and looks at what comes of it; or
// lets every scenario run with little to spare of threads, queued signals, descriptors, addresses, memory or
// a file system's pages.
//
//   fault_sweep [--shard K/N] [--scenario NAME [--case FUNCTION:OCCURRENCE:ERROR]] [--list]
//   fault_sweep --limits [--shard K/N] [--scenario NAME [--case LIMIT:SPARE]]
//   fault_sweep [--limits] --daily K/N/SHARDS
//                                   the K-th of N shards whose turn it is today, which is printed
//   fault_sweep --self-test         whether it notices what is wrong on purpose
//   fault_sweep --catalogue         whether the catalogue knows everything that our libraries import

#include <malloc.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "catalogue.h"
#include "intercept.h"
#include "limits.h"
#include "scenarios.h"
#include "self_test.h"
#include "support/private_bus.h"
#include "sweep.h"

namespace {

using namespace tern::test;

struct Options {
    unsigned shard = 0;
    unsigned shards = 1;
    std::string scenario;  ///< empty for all
    std::string theCase;   ///< empty for all
    bool list = false;
    bool limits = false;
    bool catalogue = false;
    bool selfTest = false;
};

/// "K/N/SHARDS": of SHARDS shards each day has N, one after the other, until all have had their turn.
bool ChooseDaily(const std::string& text, Options& options) {
    unsigned number = 0;
    unsigned ofADay = 0;
    unsigned shards = 0;
    int length = 0;
    if (sscanf(text.c_str(), "%u/%u/%u%n", &number, &ofADay, &shards, &length) != 3 ||
        text.size() != static_cast<std::size_t>(length) || number >= ofADay || ofADay > shards) {
        return false;
    }
    constexpr std::int64_t SECONDS_OF_A_DAY = 86400;
    const auto day = static_cast<std::uint64_t>(std::int64_t{time(nullptr)} / SECONDS_OF_A_DAY);
    options.shards = shards;
    options.shard = static_cast<unsigned>((day * ofADay + number) % shards);
    printf("today's turn: --shard %u/%u\n", options.shard, options.shards);
    return true;
}

bool Parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--list") {
            options.list = true;
        } else if (option == "--limits") {
            options.limits = true;
        } else if (option == "--catalogue") {
            options.catalogue = true;
        } else if (option == "--self-test") {
            options.selfTest = true;
        } else if (i + 1 < argc && option == "--scenario") {
            options.scenario = argv[++i];
        } else if (i + 1 < argc && option == "--case") {
            options.theCase = argv[++i];
        } else if (i + 1 < argc && option == "--daily") {
            if (!ChooseDaily(argv[++i], options)) {
                return false;
            }
        } else if (i + 1 < argc && option == "--shard") {
            char* end = nullptr;
            options.shard = static_cast<unsigned>(strtoul(argv[++i], &end, 10));
            options.shards = *end == '/' ? static_cast<unsigned>(strtoul(end + 1, nullptr, 10)) : 0;
        } else {
            return false;
        }
    }
    return options.shards > options.shard;
}

/// FNV-1a: each shard finds the same cases, whatever order threads took in its own recording.
unsigned ShardOf(const std::string& name, unsigned shards) {
    unsigned hash = 2166136261U;
    for (const char c : name) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
    }
    return hash % shards;
}

void Print(const char* name, const Tally& tally) {
    unsigned cases = 0;
    std::string outcomes;
    for (std::size_t i = 0; i < tally.size(); ++i) {
        cases += tally[i];
        if (tally[i] != 0) {
            outcomes += ", " + std::to_string(tally[i]) + " " + NameOf(static_cast<Outcome>(i));
        }
    }
    printf("%-28s %5u cases%s\n", name, cases, outcomes.c_str());
}

/// True when nothing came out that may not be, and at least one case was run.
bool RunAll(const Options& options) {
    const PrivateBus bus;
    Sweep sweep;
    bool good = true;
    Tally total{};
    for (const Scenario& scenario : Scenarios()) {
        if (!options.scenario.empty() && options.scenario != scenario.name) {
            continue;
        }
        const std::vector<Case> cases = sweep.FindCases(scenario);
        good = good && !cases.empty();
        Tally tally{};
        for (const Case& theCase : cases) {
            const std::string name = std::string(scenario.name) + " " + theCase.Name();
            if (ShardOf(name, options.shards) != options.shard ||
                (!options.theCase.empty() && options.theCase != theCase.Name())) {
                continue;
            }
            if (options.list) {
                printf("%s\n", name.c_str());
                continue;
            }
            const auto outcome = static_cast<std::size_t>(sweep.Run(theCase));
            ++tally[outcome];
            ++total[outcome];
            good = good && IsAllowed(static_cast<Outcome>(outcome));
        }
        if (!options.list) {
            Print(scenario.name, tally);
        }
    }
    if (!options.list) {
        Print("all", total);
    }
    return good && (options.list || total != Tally{});
}

/// With nothing to spare, then with one more each time until all is well, which takes less than MOST wherever
/// anything was short. What is well with nothing to spare is tried with one as well, as half of what is
/// needed may be had then.
bool RunWithLimit(Sweep& sweep, const Scenario& scenario, const Limit& limit, const Options& options,
                  Tally& tally) {
    constexpr unsigned MOST = 12;
    bool good = true;
    for (unsigned spare = 0; spare <= MOST; ++spare) {
        const Case theCase{&scenario, {}, nullptr, &limit, spare};
        if (!options.theCase.empty() && options.theCase != theCase.Name()) {
            continue;
        }
        const Outcome outcome = sweep.Run(theCase);
        ++tally[static_cast<std::size_t>(outcome)];
        good = good && IsAllowed(outcome);
        if (!IsAllowed(outcome) || outcome == Outcome::Skipped ||
            (outcome == Outcome::Absorbed && spare > 0)) {
            break;
        }
    }
    return good;
}

/// True when nothing came out that may not be, and at least one case was run.
bool RunLimits(const Options& options) {
    const PrivateBus bus;
    Sweep sweep;
    bool good = true;
    Tally total{};
    for (const Limit& limit : Limits()) {
        Tally tally{};
        for (const Scenario& scenario : Scenarios()) {
            const std::string name = std::string(scenario.name) + " " + limit.name;
            if ((options.scenario.empty() || options.scenario == scenario.name) &&
                ShardOf(name, options.shards) == options.shard) {
                good = RunWithLimit(sweep, scenario, limit, options, tally) && good;
            }
        }
        Print(limit.name, tally);
        for (std::size_t i = 0; i < tally.size(); ++i) {
            total[i] += tally[i];
        }
    }
    Print("all", total);
    total[static_cast<std::size_t>(Outcome::Skipped)] = 0;
    return good && total != Tally{};
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!Parse(argc, argv, options)) {
        fprintf(stderr,
                "usage: %s [--limits] [--shard K/N | --daily K/N/SHARDS] [--scenario NAME [--case CASE]] "
                "[--list] | --self-test | --catalogue\n",
                argv[0]);
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    // What is released is overwritten, so that who uses it afterwards is noticed.
    mallopt(M_PERTURB, 0x5a);
    if (options.catalogue) {
        return CatalogueIsComplete() ? 0 : 1;
    }
    // Everything is logged, so that nothing is left out because nobody would read it.
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other threads yet
    setenv("TERN_LOG_LEVEL", "debug", 1);
    Intercept::Install();
    if (options.selfTest) {
        return SweepNoticesEverything() ? 0 : 1;
    }
    return (options.limits ? RunLimits(options) : RunAll(options)) ? 0 : 1;
}
