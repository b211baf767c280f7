// Attacks a service of the library as a hostile peer would, one attack after the other, and prints what each
// did to it: how much its memory grew, how much it logged, and how long another client waited for an answer.
//
//     tern-hostile [--mib N] [--check] [--without-memory] [--attack NAME] SERVICE
//
// SERVICE is the program tern-hostile-service. A message has N MiB, 32 unless said otherwise, which is the
// most that dbus-daemon lets pass. With --check the exit status is 1 when a figure is beyond what is
// promised.

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include "attacked_service.h"
#include "attacks.h"
#include "dbus_client/peer_service.h"
#include "names.h"
#include "other_client.h"
#include "raw_client.h"
#include "support/private_bus.h"
#include "support/wait_until.h"

namespace {

using std::chrono::milliseconds;

constexpr int EXIT_USAGE = 2;
constexpr std::size_t MEBIBYTE = std::size_t{1024} * 1024;
/// The watchdog that the service is to live with.
constexpr milliseconds WATCHDOG{20'000};
/// That of the service that asks somebody who does not answer, and how much is sent to it meanwhile, when it
/// is only to be seen that a bound holds.
constexpr milliseconds CHECK_WATCHDOG{8'000};
constexpr int CHECK_MESSAGES = 64;
/// Longer than an unbounded service takes.
constexpr milliseconds PATIENCE{290'000};

struct Options {
    std::string service;
    std::size_t mib = 32;
    bool check = false;
    bool withoutMemory = false;
    std::string attack;
};

/// What an attack did.
struct Figures {
    std::size_t growth = 0;
    std::size_t lines = 0;
    std::size_t bytes = 0;
    milliseconds longest{0};
};

/// What is promised of it. Lines and bytes are those of one parse, and what sd-bus's own failure adds.
struct Limits {
    std::size_t growth = 0;
    std::size_t lines = 520;
    std::size_t bytes = 100 * 1024;
    milliseconds longest = WATCHDOG * tern::test::SLOWNESS;
};

void PrintHead() {
    printf(
        "| attack | memory grew by MiB | lines logged | KiB logged | longest wait of another client, ms |\n"
        "|---|---|---|---|---|\n");
}

/// Prints the figures and what of them is too much; false when something is.
bool Judge(const char* name, const char* description, const Figures& figures, const Limits& limits,
           const Options& options) {
    printf("| %s: %s | %zu | %zu | %zu | %lld |\n", name, description,
           (figures.growth + MEBIBYTE / 2) / MEBIBYTE, figures.lines, (figures.bytes + 1023) / 1024,
           static_cast<long long>(figures.longest.count()));
    fflush(stdout);
    bool good = true;
    const auto require = [&](bool holds, const char* what) {
        if (options.check && !holds) {
            printf("%s: too much: %s\n", name, what);
            good = false;
        }
    };
    require(options.withoutMemory || figures.growth <= limits.growth, "memory");
    require(figures.lines <= limits.lines, "lines logged");
    require(figures.bytes <= limits.bytes, "bytes logged");
    require(figures.longest <= limits.longest, "wait of another client");
    return good;
}

/// Does `attack` to a service and waits until it is through with it.
Figures Suffer(const Options& options, const char* logLevel, milliseconds watchdog,
               const std::function<void(const hostile::OtherClient&)>& attack) {
    hostile::AttackedService service(options.service, logLevel, watchdog);
    const hostile::OtherClient other;
    service.BeginCount();
    attack(other);
    if (!tern::test::WaitUntil([&] { return other.Done() > 0; }, PATIENCE) || other.Failures() != 0 ||
        !service.IsAlive()) {
        throw std::runtime_error("the service did not survive");
    }
    const std::size_t growth = service.GrowthBytes();
    const milliseconds longest = other.LongestCall();
    service.End();
    return {growth, service.LogLines(), service.LogBytes(), longest};
}

bool SendMessages(const Options& options, const std::string& address) {
    bool good = true;
    for (const hostile::Attack& attack : hostile::Attacks()) {
        if (!options.attack.empty() && options.attack != attack.name) {
            continue;
        }
        // The header is part of what the bus counts.
        const std::string body = attack.make(options.mib * MEBIBYTE - 1024);
        hostile::RawClient peer(address);
        const Figures figures =
            Suffer(options, attack.logLevel, milliseconds(0),
                   [&](const hostile::OtherClient&) { peer.Call(attack.member, attack.signature, body); });
        Limits limits;
        // What is stored; the message, which sd-bus may have twice while it comes; the path; the rest.
        limits.growth = (64 + 2 * options.mib + 4 + 12) * MEBIBYTE;
        good = Judge(attack.name, attack.description, figures, limits, options) && good;
    }
    return good;
}

/// A third party floods a service that waits for somebody who does not answer.
bool FloodDuringACall(const Options& options, const std::string& address) {
    const std::string name = "flood";
    if (!options.attack.empty() && options.attack != name) {
        return true;
    }
    const tern::test::PeerService mute(hostile::MUTE_NAME, [](sd_bus* bus) {
        sd_bus_add_object(
            bus, nullptr, "/", [](sd_bus_message*, void*, sd_bus_error*) { return 1; }, nullptr);
    });
    const std::string body = hostile::Attacks().front().make(MEBIBYTE);
    const milliseconds watchdog = options.check ? CHECK_WATCHDOG : WATCHDOG;
    const Figures figures = Suffer(options, "info", watchdog, [&](const hostile::OtherClient& other) {
        hostile::RawClient peer(address);
        peer.Call("AskTheMute", "", "");
        for (int sent = 0; other.Done() == 0 && !(options.check && sent == CHECK_MESSAGES); ++sent) {
            peer.Call("ParseDictionary", "a{sv}", body);
        }
    });
    Limits limits;
    limits.growth =
        static_cast<std::size_t>(-1);  // as much as the peer can send, which is said in the header
    limits.lines = 10;
    limits.longest = watchdog * tern::test::SLOWNESS;
    return Judge(name.c_str(), "texts of 1 MiB while a synchronous call is not answered", figures, limits,
                 options);
}

bool Parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        const bool hasValue = i + 1 < argc;
        if (argument == "--check") {
            options.check = true;
        } else if (argument == "--without-memory") {
            options.withoutMemory = true;
        } else if (argument == "--mib" && hasValue) {
            options.mib = strtoul(argv[++i], nullptr, 10);
        } else if (argument == "--attack" && hasValue) {
            options.attack = argv[++i];
        } else if (argument.empty() || argument.front() == '-' || !options.service.empty()) {
            return false;
        } else {
            options.service = argument;
        }
    }
    return !options.service.empty() && options.mib >= 1 && options.mib <= 32;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!Parse(argc, argv, options)) {
        fprintf(stderr, "usage: %s [--mib 1..32] [--check] [--without-memory] [--attack NAME] SERVICE\n",
                argv[0]);
        return EXIT_USAGE;
    }
    try {
        const tern::test::PrivateBus bus;
        PrintHead();
        const bool messages = SendMessages(options, bus.Address());
        const bool flood = FloodDuringACall(options, bus.Address());
        return messages && flood ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& error) {
        fprintf(stderr, "%s\n", error.what());
        return EXIT_FAILURE;
    }
}
