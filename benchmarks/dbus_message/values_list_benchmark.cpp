#include <benchmark/benchmark.h>
#include <systemd/sd-bus.h>
#include <tern/dbus_message/asv_signature_parser.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "tests/dbus_message/test_messages.h"
#include "tests/support/allocations.h"

// Flattening an "a{sv}" into a values list and looking its values up, beside a plain loop over the same
// message that fills a std::map of std::variant. Every fourth entry is a string, a double, an unsigned and a
// signed integer. Nested messages hold their entries in dictionaries of ten. Allocations are those of
// operator new; sd-bus's own, by malloc, are the same on both sides.

namespace {

using ::tern::test::AllocationCount;
using ::tern::test::BusMessage;
using ::tern::test::Require;
using ::tern::test::TestMessages;

void Require(int result) {
    Require(result, "sd-bus");
}

void AppendEntry(sd_bus_message* message, int i) {
    const std::string name = "Property" + std::to_string(i);
    switch (i % 4) {
        case 0:
            Require(sd_bus_message_append(message, "{sv}", name.c_str(), "s", "some text of usual length"));
            break;
        case 1:
            Require(sd_bus_message_append(message, "{sv}", name.c_str(), "d", 0.5));
            break;
        case 2:
            Require(sd_bus_message_append(message, "{sv}", name.c_str(), "u", 5U));
            break;
        default:
            Require(sd_bus_message_append(message, "{sv}", name.c_str(), "i", 5));
            break;
    }
}

/// A sealed message with so many entries.
class Sample {
public:
    Sample(int entries, bool nested) : mMessage(mMessages.New()) {
        sd_bus_message* const message = mMessage.get();
        Require(sd_bus_message_open_container(message, 'a', "{sv}"));
        for (int i = 0; i < entries; ++i) {
            if (nested && i % 10 == 0) {
                Require(sd_bus_message_open_container(message, 'e', "sv"));
                Require(sd_bus_message_append(message, "s", ("Group" + std::to_string(i)).c_str()));
                Require(sd_bus_message_open_container(message, 'v', "a{sv}"));
                Require(sd_bus_message_open_container(message, 'a', "{sv}"));
            }
            AppendEntry(message, i);
            if (nested && (i % 10 == 9 || i == entries - 1)) {
                for (int container = 0; container < 3; ++container) {
                    Require(sd_bus_message_close_container(message));
                }
            }
        }
        Require(sd_bus_message_close_container(message));
        TestMessages::Seal(mMessage);
    }

    sd_bus_message* Rewound() {
        Require(sd_bus_message_rewind(mMessage.get(), 1));
        return mMessage.get();
    }

private:
    TestMessages mMessages;
    BusMessage mMessage;
};

// ---- the plain loop

using Variant = std::variant<std::uint8_t, bool, std::int16_t, std::uint16_t, std::int32_t, std::uint32_t,
                             std::int64_t, std::uint64_t, double, std::string>;
using PlainMap = std::map<std::string, Variant>;

template <typename T>
Variant ReadPlain(sd_bus_message* message, char type) {
    T value{};
    Require(sd_bus_message_read_basic(message, type, &value));
    return Variant(value);
}

void ReadPlainDictionary(sd_bus_message* message, const std::string& prefix, PlainMap& map) {
    Require(sd_bus_message_enter_container(message, 'a', "{sv}"));
    while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
        const char* name = nullptr;
        Require(sd_bus_message_read_basic(message, 's', &name));
        const char* contents = nullptr;
        Require(sd_bus_message_peek_type(message, nullptr, &contents));
        Require(sd_bus_message_enter_container(message, 'v', contents));
        std::string key = prefix + "_" + name;
        switch (contents[0]) {
            case 's': {
                const char* text = nullptr;
                Require(sd_bus_message_read_basic(message, 's', &text));
                map.emplace(std::move(key), text);
                break;
            }
            case 'd':
                map.emplace(std::move(key), ReadPlain<double>(message, 'd'));
                break;
            case 'i':
                map.emplace(std::move(key), ReadPlain<std::int32_t>(message, 'i'));
                break;
            case 'u':
                map.emplace(std::move(key), ReadPlain<std::uint32_t>(message, 'u'));
                break;
            case 'a':
                ReadPlainDictionary(message, key, map);
                break;
            default:
                Require(sd_bus_message_skip(message, contents));
                break;
        }
        Require(sd_bus_message_exit_container(message));
        Require(sd_bus_message_exit_container(message));
    }
    Require(sd_bus_message_exit_container(message));
}

// ---- flattening

void CountPerEntry(benchmark::State& state, std::size_t allocations) {
    const double entries = static_cast<double>(state.iterations()) * static_cast<double>(state.range(0));
    // Inverted and a rate: seconds for each entry.
    state.counters["time/entry"] =
        benchmark::Counter(entries, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["allocs/entry"] = static_cast<double>(allocations) / entries;
}

void FlattenIntoValuesList(benchmark::State& state, bool nested) {
    Sample sample(static_cast<int>(state.range(0)), nested);
    const AllocationCount count;
    for (auto _ : state) {
        mw::tern::DBusMessage::ASVsignatureParser parser(sample.Rewound());
        Require(parser.ParseMessage());
        benchmark::DoNotOptimize(parser.GetValuesList());
    }
    CountPerEntry(state, count.Get());
}

void FlattenPlainly(benchmark::State& state, bool nested) {
    Sample sample(static_cast<int>(state.range(0)), nested);
    const AllocationCount count;
    for (auto _ : state) {
        PlainMap map;
        ReadPlainDictionary(sample.Rewound(), std::string(), map);
        benchmark::DoNotOptimize(map);
    }
    CountPerEntry(state, count.Get());
}

BENCHMARK_CAPTURE(FlattenIntoValuesList, flat, false)->RangeMultiplier(10)->Range(1, 1000);
BENCHMARK_CAPTURE(FlattenPlainly, flat, false)->RangeMultiplier(10)->Range(1, 1000);
BENCHMARK_CAPTURE(FlattenIntoValuesList, nested, true)->RangeMultiplier(10)->Range(1, 1000);
BENCHMARK_CAPTURE(FlattenPlainly, nested, true)->RangeMultiplier(10)->Range(1, 1000);

// ---- looking up

std::vector<std::string> IntegerKeys(int entries) {
    std::vector<std::string> keys;
    for (int i = 3; i < entries; i += 4) {
        keys.push_back("_Property" + std::to_string(i));
    }
    return keys;
}

void LookUpInValuesList(benchmark::State& state) {
    Sample sample(static_cast<int>(state.range(0)), false);
    mw::tern::DBusMessage::ASVsignatureParser parser(sample.Rewound());
    Require(parser.ParseMessage());
    const std::vector<std::string> keys = IntegerKeys(static_cast<int>(state.range(0)));
    const AllocationCount count;
    std::size_t next = 0;
    for (auto _ : state) {
        int value = 0;
        benchmark::DoNotOptimize(parser.GetValuesList().GetInt32(keys[next], value));
        benchmark::DoNotOptimize(value);
        next = next + 1 < keys.size() ? next + 1 : 0;
    }
    state.counters["allocs"] = static_cast<double>(count.Get());
}

void LookUpPlainly(benchmark::State& state) {
    Sample sample(static_cast<int>(state.range(0)), false);
    PlainMap map;
    ReadPlainDictionary(sample.Rewound(), std::string(), map);
    const std::vector<std::string> keys = IntegerKeys(static_cast<int>(state.range(0)));
    std::size_t next = 0;
    for (auto _ : state) {
        const auto found = map.find(keys[next]);
        benchmark::DoNotOptimize(found != map.end() ? std::get_if<std::int32_t>(&found->second) : nullptr);
        next = next + 1 < keys.size() ? next + 1 : 0;
    }
}

void MissedLookUp(benchmark::State& state) {
    const mw::tern::DBusMessage::ValuesList list;
    const std::string key = "_absent";
    for (auto _ : state) {
        int value = 0;
        benchmark::DoNotOptimize(list.GetInt32(key, value));
    }
}

BENCHMARK(LookUpInValuesList)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(LookUpPlainly)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(MissedLookUp);

}  // namespace

BENCHMARK_MAIN();
