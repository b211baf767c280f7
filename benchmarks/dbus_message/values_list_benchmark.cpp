#include <benchmark/benchmark.h>
#ifdef TERN_HAVE_GIO
#include <gio/gio.h>
#endif
#ifdef TERN_HAVE_SDBUSCPP
#include <sdbus-c++/sdbus-c++.h>
#endif
#include <systemd/sd-bus.h>
#include <tern/dbus_message/asv_signature_parser.h>

#include <cstdint>
#include <map>
#include <memory>
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
//
// The peers, where they are installed: sdbus-c++ into a std::map of its Variant, and GLib's GVariant into a
// hash table, both from the given GVariant and from the message's bytes, which is what arrives on a bus. Both
// flatten to the same keys.

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

#ifdef TERN_HAVE_SDBUSCPP

// ---- sdbus-c++

using SdbusMap = std::map<std::string, sdbus::Variant>;

/// The same content, in a variant: the only sealed message of its own that sdbus-c++ 1.2 lets one make.
sdbus::Variant SdbusMessage(int entries, bool nested) {
    SdbusMap map;
    SdbusMap group;
    for (int i = 0; i < entries; ++i) {
        SdbusMap& target = nested ? group : map;
        const std::string name = "Property" + std::to_string(i);
        switch (i % 4) {
            case 0:
                target.emplace(name, sdbus::Variant(std::string("some text of usual length")));
                break;
            case 1:
                target.emplace(name, sdbus::Variant(0.5));
                break;
            case 2:
                target.emplace(name, sdbus::Variant(std::uint32_t{5}));
                break;
            default:
                target.emplace(name, sdbus::Variant(std::int32_t{5}));
                break;
        }
        if (nested && (i % 10 == 9 || i == entries - 1)) {
            map.emplace("Group" + std::to_string(i / 10 * 10), sdbus::Variant(group));
            group.clear();
        }
    }
    return sdbus::Variant(map);
}

void FlattenSdbusMap(SdbusMap&& source, const std::string& prefix, SdbusMap& map) {
    for (auto& [name, value] : source) {
        std::string key = prefix + "_" + name;
        if (value.containsValueOfType<SdbusMap>()) {
            FlattenSdbusMap(value.get<SdbusMap>(), key, map);
        } else {
            map.emplace(std::move(key), std::move(value));
        }
    }
}

#endif

#ifdef TERN_HAVE_GIO

// ---- GVariant

struct ReleaseVariant {
    void operator()(GVariant* variant) const { g_variant_unref(variant); }
};
using VariantOwner = std::unique_ptr<GVariant, ReleaseVariant>;

/// The same content, as a message's body: a tuple of the dictionary.
VariantOwner GVariantBody(int entries, bool nested) {
    GVariantBuilder all;
    GVariantBuilder group;
    g_variant_builder_init(&all, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_init(&group, G_VARIANT_TYPE_VARDICT);
    for (int i = 0; i < entries; ++i) {
        GVariant* value = nullptr;
        switch (i % 4) {
            case 0:
                value = g_variant_new_string("some text of usual length");
                break;
            case 1:
                value = g_variant_new_double(0.5);
                break;
            case 2:
                value = g_variant_new_uint32(5);
                break;
            default:
                value = g_variant_new_int32(5);
                break;
        }
        g_variant_builder_add(nested ? &group : &all, "{sv}", ("Property" + std::to_string(i)).c_str(),
                              value);
        if (nested && (i % 10 == 9 || i == entries - 1)) {
            g_variant_builder_add(&all, "{sv}", ("Group" + std::to_string(i / 10 * 10)).c_str(),
                                  g_variant_builder_end(&group));
            g_variant_builder_init(&group, G_VARIANT_TYPE_VARDICT);
        }
    }
    g_variant_builder_clear(&group);
    return VariantOwner(g_variant_ref_sink(g_variant_new("(@a{sv})", g_variant_builder_end(&all))));
}

/// The message's bytes as they would arrive.
std::vector<guchar> GDBusBytes(GVariant* body) {
    GDBusMessage* const message =
        g_dbus_message_new_method_call("org.example.Peer", "/org/example", "org.example.If", "Call");
    g_dbus_message_set_serial(message, 1);
    g_dbus_message_set_body(message, body);
    gsize size = 0;
    guchar* const blob = g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
    std::vector<guchar> bytes(blob, blob + size);
    g_free(blob);
    g_object_unref(message);
    return bytes;
}

void FlattenGVariant(GVariant* dictionary, const char* prefix, GHashTable* table) {
    GVariantIter entries;
    const char* name = nullptr;
    GVariant* value = nullptr;
    g_variant_iter_init(&entries, dictionary);
    while (g_variant_iter_next(&entries, "{&sv}", &name, &value) != FALSE) {
        char* const key = g_strconcat(prefix, "_", name, nullptr);
        if (g_variant_is_of_type(value, G_VARIANT_TYPE_VARDICT) != FALSE) {
            FlattenGVariant(value, key, table);
            g_free(key);
            g_variant_unref(value);
        } else {
            g_hash_table_insert(table, key, value);
        }
    }
}

GHashTable* NewTable() {
    return g_hash_table_new_full(g_str_hash, g_str_equal, g_free,
                                 [](gpointer value) { g_variant_unref(static_cast<GVariant*>(value)); });
}

void FlattenBody(GVariant* body, GHashTable* table) {
    GVariant* const dictionary = g_variant_get_child_value(body, 0);
    FlattenGVariant(dictionary, "", table);
    g_variant_unref(dictionary);
}

#endif

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

#ifdef TERN_HAVE_SDBUSCPP
void FlattenWithSdbusCpp(benchmark::State& state, bool nested) {
    const sdbus::Variant message = SdbusMessage(static_cast<int>(state.range(0)), nested);
    const AllocationCount count;
    for (auto _ : state) {
        SdbusMap flat;
        FlattenSdbusMap(message.get<SdbusMap>(), std::string(), flat);
        benchmark::DoNotOptimize(flat);
    }
    CountPerEntry(state, count.Get());
}
#endif

#ifdef TERN_HAVE_GIO
/// GLib does not allocate by operator new, so its memory is not counted.
void FlattenGVariantGiven(benchmark::State& state, bool nested) {
    const VariantOwner body = GVariantBody(static_cast<int>(state.range(0)), nested);
    for (auto _ : state) {
        GHashTable* const table = NewTable();
        FlattenBody(body.get(), table);
        benchmark::DoNotOptimize(table);
        g_hash_table_unref(table);
    }
    CountPerEntry(state, 0);
}

void FlattenGDBusMessage(benchmark::State& state, bool nested) {
    std::vector<guchar> bytes = GDBusBytes(GVariantBody(static_cast<int>(state.range(0)), nested).get());
    for (auto _ : state) {
        GDBusMessage* const message =
            g_dbus_message_new_from_blob(bytes.data(), bytes.size(), G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
        GHashTable* const table = NewTable();
        FlattenBody(g_dbus_message_get_body(message), table);
        benchmark::DoNotOptimize(table);
        g_hash_table_unref(table);
        g_object_unref(message);
    }
    CountPerEntry(state, 0);
}
#endif

BENCHMARK_CAPTURE(FlattenIntoValuesList, flat, false)->RangeMultiplier(10)->Range(1, 1000);
BENCHMARK_CAPTURE(FlattenPlainly, flat, false)->RangeMultiplier(10)->Range(1, 1000);
BENCHMARK_CAPTURE(FlattenIntoValuesList, nested, true)->RangeMultiplier(10)->Range(1, 1000);
BENCHMARK_CAPTURE(FlattenPlainly, nested, true)->RangeMultiplier(10)->Range(1, 1000);
#ifdef TERN_HAVE_SDBUSCPP
BENCHMARK_CAPTURE(FlattenWithSdbusCpp, flat, false)->RangeMultiplier(10)->Range(1, 1000);
BENCHMARK_CAPTURE(FlattenWithSdbusCpp, nested, true)->RangeMultiplier(10)->Range(1, 1000);
#endif
#ifdef TERN_HAVE_GIO
BENCHMARK_CAPTURE(FlattenGVariantGiven, flat, false)->RangeMultiplier(10)->Range(1, 1000);
BENCHMARK_CAPTURE(FlattenGVariantGiven, nested, true)->RangeMultiplier(10)->Range(1, 1000);
BENCHMARK_CAPTURE(FlattenGDBusMessage, flat, false)->RangeMultiplier(10)->Range(1, 1000);
BENCHMARK_CAPTURE(FlattenGDBusMessage, nested, true)->RangeMultiplier(10)->Range(1, 1000);
#endif

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

#ifdef TERN_HAVE_SDBUSCPP
void LookUpWithSdbusCpp(benchmark::State& state) {
    const sdbus::Variant message = SdbusMessage(static_cast<int>(state.range(0)), false);
    SdbusMap flat;
    FlattenSdbusMap(message.get<SdbusMap>(), std::string(), flat);
    const std::vector<std::string> keys = IntegerKeys(static_cast<int>(state.range(0)));
    std::size_t next = 0;
    for (auto _ : state) {
        const auto found = flat.find(keys[next]);
        benchmark::DoNotOptimize(found != flat.end() ? found->second.get<std::int32_t>() : 0);
        next = next + 1 < keys.size() ? next + 1 : 0;
    }
}
#endif

#ifdef TERN_HAVE_GIO
void LookUpInHashTable(benchmark::State& state) {
    const VariantOwner body = GVariantBody(static_cast<int>(state.range(0)), false);
    GHashTable* const table = NewTable();
    FlattenBody(body.get(), table);
    const std::vector<std::string> keys = IntegerKeys(static_cast<int>(state.range(0)));
    std::size_t next = 0;
    for (auto _ : state) {
        auto* const value = static_cast<GVariant*>(g_hash_table_lookup(table, keys[next].c_str()));
        benchmark::DoNotOptimize(value != nullptr ? g_variant_get_int32(value) : 0);
        next = next + 1 < keys.size() ? next + 1 : 0;
    }
    g_hash_table_unref(table);
}
#endif

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
#ifdef TERN_HAVE_SDBUSCPP
BENCHMARK(LookUpWithSdbusCpp)->Arg(10)->Arg(100)->Arg(1000);
#endif
#ifdef TERN_HAVE_GIO
BENCHMARK(LookUpInHashTable)->Arg(10)->Arg(100)->Arg(1000);
#endif
BENCHMARK(MissedLookUp);

}  // namespace

BENCHMARK_MAIN();
