#include "options.h"

#include <getopt.h>

#include <array>
#include <charconv>
#include <cstring>
#include <string_view>

namespace ternctl {

using std::chrono::milliseconds;
using namespace std::chrono_literals;

namespace {

/// Returned by getopt_long(3) for options without a letter.
enum Code : int { JSON = 256, USER, SYSTEM, ADDRESS, TIMEOUT, VERSION, PERIOD, COUNT, FULL, NAMES, PID };

constexpr std::array LONG_OPTIONS{
    option{"help", no_argument, nullptr, 'h'},
    option{"version", no_argument, nullptr, VERSION},
    option{"json", no_argument, nullptr, JSON},
    option{"host", required_argument, nullptr, 'H'},
    option{"address", required_argument, nullptr, ADDRESS},
    option{"user", no_argument, nullptr, USER},
    option{"system", no_argument, nullptr, SYSTEM},
    option{"timeout", required_argument, nullptr, TIMEOUT},
    option{"follow", no_argument, nullptr, 'f'},
    option{"last", required_argument, nullptr, 'n'},
    option{"period", required_argument, nullptr, PERIOD},
    option{"count", required_argument, nullptr, COUNT},
    option{"full", no_argument, nullptr, FULL},
    option{"names", no_argument, nullptr, NAMES},
    option{"pid", required_argument, nullptr, PID},
    option{nullptr, 0, nullptr, 0},
};

/// Options that are not for every command.
struct Special {
    int code;
    const char* name;
    std::array<std::string_view, 2> commands;
};
constexpr std::array SPECIALS{
    Special{'f', "--follow", {"events"}},          Special{'n', "--last", {"events", "log"}},
    Special{PERIOD, "--period", {"top"}},          Special{COUNT, "--count", {"top"}},
    Special{FULL, "--full", {"status", "events"}}, Special{NAMES, "--names", {"list"}},
    Special{PID, "--pid", {"events", "log"}},
};

/// How many arguments a command takes.
struct Command {
    std::string_view name;
    std::size_t least;
    std::size_t most;
    const char* usage;
    const char* usageWithPid = nullptr;  ///< where a process is named in place of a service
};
constexpr std::array COMMANDS{
    Command{"list", 0, 0, ""},
    Command{"status", 1, 1, " NAME"},
    Command{"top", 0, 0, ""},
    Command{"events", 1, 1, " NAME", " --pid PID"},
    Command{"log", 1, 1, " NAME", " --pid PID"},
    Command{"why", 1, 1, " NAME"},
    Command{"log-level", 1, 2, " NAME [LEVEL]"},
    Command{"chart", 3, 3, " NAME SECONDS FILE.svg"},
};

void CheckSpecials(const std::string& command, const std::vector<int>& codes) {
    for (const Special& special : SPECIALS) {
        for (const int code : codes) {
            if (code == special.code && command != special.commands[0] && command != special.commands[1]) {
                throw WrongUse(std::string(special.name) + " is not for '" + command + "'");
            }
        }
    }
}

void CheckCommand(const Options& options) {
    for (const Command& command : COMMANDS) {
        if (command.name != options.command) {
            continue;
        }
        const bool isOfProcess = options.pid.has_value() && command.usageWithPid != nullptr;
        const std::size_t least = isOfProcess ? 0 : command.least;
        const std::size_t most = isOfProcess ? 0 : command.most;
        if (options.arguments.size() < least || options.arguments.size() > most) {
            throw WrongUse("the use is: ternctl " + options.command +
                           (isOfProcess ? command.usageWithPid : command.usage));
        }
        return;
    }
    throw WrongUse("unknown command '" + options.command + "'");
}

void CheckBus(const Options& options) {
    if (options.pid && (options.host || options.isUserBus || options.address)) {
        throw WrongUse("--pid is a process of this machine: without --host, --user and --address");
    }
    if (options.host && (options.isUserBus || options.address)) {
        throw WrongUse("--host is the system bus of another machine: without --user and --address");
    }
    if (options.isUserBus && options.address) {
        throw WrongUse("--user and --address are two buses");
    }
}

void Apply(Options& options, int code, const std::string& value) {
    switch (code) {
        case 'h':
            options.isHelp = true;
            break;
        case VERSION:
            options.isVersion = true;
            break;
        case JSON:
            options.isJson = true;
            break;
        case 'H':
            options.host = value;
            break;
        case ADDRESS:
            options.address = value;
            break;
        case USER:
        case SYSTEM:
            options.isUserBus = code == USER;
            break;
        case TIMEOUT:
            options.limit = ReadSeconds(value, 1ms, 24h, "time-out, 0.001 to 86400 seconds");
            break;
        case 'f':
            options.isFollowing = true;
            break;
        case 'n':
            options.last = ReadWhole(value, 0, UINT64_MAX, "number of events or messages");
            break;
        case PERIOD:
            options.period = ReadSeconds(value, 100ms, 1h, "period, 0.1 to 3600 seconds");
            break;
        case COUNT:
            options.count = ReadWhole(value, 1, UINT64_MAX, "number of pages");
            break;
        case FULL:
            options.isFull = true;
            break;
        case PID:
            options.pid = static_cast<std::uint32_t>(ReadWhole(value, 1, INT32_MAX, "process id"));
            break;
        default:
            options.isNamesOnly = true;
            break;
    }
}

}  // namespace

std::uint64_t ReadWhole(const std::string& text, std::uint64_t low, std::uint64_t high, const char* what) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < low || number > high) {
        throw WrongUse("'" + text + "' is no " + what);
    }
    return number;
}

milliseconds ReadSeconds(const std::string& text, milliseconds low, milliseconds high, const char* what) {
    const std::size_t point = text.find('.');
    const std::string whole = text.substr(0, point);
    std::string decimals = point == std::string::npos ? "0" : text.substr(point + 1);
    if (decimals.size() > 3) {
        throw WrongUse("'" + text + "' is no " + what);
    }
    std::uint64_t seconds = 0;
    std::uint64_t thousandths = 0;
    try {
        seconds = ReadWhole(whole, 0, 1'000'000'000, what);
        decimals.append(decimals.empty() ? 0 : 3 - decimals.size(), '0');
        thousandths = ReadWhole(decimals, 0, 999, what);
    } catch (const WrongUse&) {
        throw WrongUse("'" + text + "' is no " + what);
    }
    const milliseconds time{static_cast<std::int64_t>(seconds * 1000 + thousandths)};
    if (time < low || time > high) {
        throw WrongUse("'" + text + "' is no " + what);
    }
    return time;
}

Options ReadOptions(int argc, char* argv[]) {
    Options options;
    std::vector<int> codes;
    opterr = 0;
    for (;;) {
        const int next = optind;
        // NOLINTNEXTLINE(concurrency-mt-unsafe): only one thread runs in this program
        const int code = getopt_long(argc, argv, ":hH:fn:", LONG_OPTIONS.data(), nullptr);
        if (code == -1) {
            break;
        }
        if (code == '?' || code == ':') {
            const std::string given = optopt > 0 && optopt < 256
                                          ? std::string("-") + static_cast<char>(optopt)
                                      : optind > next ? argv[optind - 1]
                                                      : argv[next];
            throw WrongUse(code == ':' ? "'" + given + "' takes a value" : "unknown option '" + given + "'");
        }
        codes.push_back(code);
        Apply(options, code, optarg != nullptr ? optarg : "");
    }
    if (options.isHelp || options.isVersion) {
        return options;
    }
    if (optind >= argc) {
        throw WrongUse("no command");
    }
    options.command = argv[optind];
    options.arguments.assign(argv + optind + 1, argv + argc);
    CheckCommand(options);
    CheckSpecials(options.command, codes);
    CheckBus(options);
    return options;
}

}  // namespace ternctl
