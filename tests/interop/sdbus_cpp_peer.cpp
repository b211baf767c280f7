// The type gallery by sdbus-c++: random values of every row there and back by method, property and signal,
// what has to be refused, and calls that are answered later. What is tried is that of gallery.py, in
// sdbus-c++'s own types.

#include <sdbus-c++/sdbus-c++.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

const std::string NAME = "com.example.TypeGallery";
const std::string PATH = "/com/example/TypeGallery";
const std::string INTERFACE = "com.example.TypeGallery1";
const std::string PROPERTIES = "org.freedesktop.DBus.Properties";
const std::string INVALID_ARGS = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr auto PATIENCE = std::chrono::seconds(20);

using Strings = std::vector<std::string>;
using Dictionary = std::map<std::string, sdbus::Variant>;

int gFailures = 0;
std::map<std::string, int> gDone;

void Check(const char* kind, bool isGood, const std::string& what) {
    ++gDone[kind];
    if (!isGood && ++gFailures <= 30) {
        printf("FAILED sdbus-c++: %s\n", what.substr(0, 600).c_str());
    }
}

// ---- Values as text that is equal for equal values only.

template <class T>
std::string Show(const T& value) requires std::is_integral_v<T> {
    return std::to_string(value);
}
std::string Show(double value) {
    std::array<char, 64> text;
    snprintf(text.data(), text.size(), "%a", value);
    return text.data();
}
std::string Show(const std::string& value) {
    return '"' + value + '"';
}
std::string Show(const sdbus::ObjectPath& value) {
    return "path " + value;
}
std::string Show(const sdbus::Signature& value) {
    return "signature " + value;
}
template <class T>
std::string Show(const std::vector<T>& value);
template <class K, class V>
std::string Show(const std::map<K, V>& value);
template <class... T>
std::string Show(const sdbus::Struct<T...>& value);
std::string Show(const sdbus::Variant& value);

template <class T>
std::string Show(const std::vector<T>& value) {
    std::string text = "[";
    for (const T& element : value) {  // no reference for bool, which is fine
        text += Show(element) + ", ";
    }
    return text + "]";
}
template <class K, class V>
std::string Show(const std::map<K, V>& value) {
    std::string text = "{";
    for (const auto& [key, content] : value) {
        text += Show(key) + ": " + Show(content) + ", ";
    }
    return text + "}";
}
template <class... T>
std::string Show(const sdbus::Struct<T...>& value) {
    std::string text = "(";
    std::apply([&](const T&... field) { ((text += Show(field) + ", "), ...); },
               static_cast<const std::tuple<T...>&>(value));
    return text + ")";
}

template <class... T>
struct Types {};
/// What the variants of this program hold.
using InVariants =
    Types<std::uint8_t, std::int16_t, std::uint16_t, std::int32_t, std::uint32_t, std::int64_t, std::uint64_t,
          double, bool, std::string, sdbus::ObjectPath, sdbus::Signature, Strings, std::vector<double>,
          std::vector<std::uint8_t>, Dictionary, std::map<std::uint32_t, std::string>, sdbus::Variant,
          sdbus::Struct<std::int32_t, std::string, double>>;

template <class... T>
std::string ShowContent(const sdbus::Variant& value, Types<T...>) {
    std::string text = "of another type";
    static_cast<void>(((value.containsValueOfType<T>() && (text = Show(value.get<T>()), true)) || ...));
    return text;
}
std::string Show(const sdbus::Variant& value) {
    return "<" + value.peekValueType() + " " + ShowContent(value, InVariants()) + ">";
}

// ---- Random values.

class Maker {
public:
    explicit Maker(unsigned long seed) : mRandom(seed) {}

    std::size_t Below(std::size_t limit) { return mRandom() % limit; }

    template <class T>
    void Make(T& value) requires std::is_integral_v<T> {
        switch (Below(4)) {
            case 0:
                value = std::numeric_limits<T>::min();
                break;
            case 1:
                value = std::numeric_limits<T>::max();
                break;
            default:
                value = static_cast<T>(mRandom());
                break;
        }
    }
    void Make(double& value) {
        static constexpr std::array EDGES{0.0,
                                          -0.0,
                                          0.1,
                                          5e-324,
                                          std::numeric_limits<double>::max(),
                                          std::numeric_limits<double>::infinity()};
        const std::size_t which = Below(2 * EDGES.size());
        value = which < EDGES.size() ? EDGES.at(which) : static_cast<double>(mRandom()) / 3e7 - 1e11;
    }
    void Make(std::string& value) {
        static const Strings PARTS{"a",  "Z",    " ", "'",  "\"",   "\\",
                                   "\n", "\x01", "é", "中", "🙂", "\xf4\x8f\xbf\xbd"};
        value.clear();
        for (std::size_t count = Below(20); count > 0; --count) {
            value += PARTS.at(Below(PARTS.size()));
        }
    }
    void Make(sdbus::ObjectPath& value) {
        std::string path;
        for (std::size_t count = Below(5); count > 0; --count) {
            path += "/_" + std::to_string(Below(1000));
        }
        value = sdbus::ObjectPath(path.empty() ? "/" : path);
    }
    void Make(sdbus::Signature& value) {
        static const Strings SIGNATURES{"", "y", "a{sv}", "(i(sad))", "aaaas", "hvogbdtxuiqnys"};
        value = sdbus::Signature(SIGNATURES.at(Below(SIGNATURES.size())));
    }
    template <class T>
    void Make(std::vector<T>& value) {
        value.clear();
        for (std::size_t count = Below(6); count > 0; --count) {
            T element{};
            Make(element);
            value.push_back(element);
        }
    }
    template <class K, class V>
    void Make(std::map<K, V>& value) {
        value.clear();
        for (std::size_t count = Below(6); count > 0; --count) {
            K key{};
            V content{};
            Make(key);
            Make(content);
            value.emplace(std::move(key), std::move(content));
        }
    }
    template <class... T>
    void Make(sdbus::Struct<T...>& value) {
        std::apply([this](T&... field) { (Make(field), ...); }, static_cast<std::tuple<T...>&>(value));
    }
    void Make(sdbus::Variant& value) {
        ++mDepth;
        MakeVariant(value, InVariants());
        --mDepth;
    }

private:
    template <class... T>
    void MakeVariant(sdbus::Variant& value, Types<T...>) {
        constexpr std::size_t PLAIN = 15;  // from there on variants hold variants
        const std::size_t which = Below(mDepth > 3 ? PLAIN : sizeof...(T));
        std::size_t index = 0;
        static_cast<void>(((index++ == which && (MakeContent<T>(value), true)) || ...));
    }
    template <class T>
    void MakeContent(sdbus::Variant& value) {
        T content{};
        Make(content);
        value = sdbus::Variant(content);
    }

    std::mt19937_64 mRandom;
    int mDepth = 0;
};

// ---- The gallery.

class Gallery {
public:
    explicit Gallery(unsigned long seed)
        : mMaker(seed),
          mConnection(sdbus::createSystemBusConnection()),
          mProxy(sdbus::createProxy(*mConnection, NAME, PATH)) {}
    ~Gallery() { mConnection->leaveEventLoop(); }
    Gallery(const Gallery&) = delete;
    Gallery& operator=(const Gallery&) = delete;

    /// Tells what the row's signal and property carry; before Begin.
    template <class T>
    void Hear(const std::string& row) {
        mProxy->uponSignal("Got" + row).onInterface(INTERFACE).call([this, row](const T& value) {
            Note("Got" + row + " " + Show(value));
        });
        mShow[row] = [](const sdbus::Variant& value) { return Show(value.get<T>()); };
    }
    void Begin() {
        mProxy->uponSignal("PropertiesChanged")
            .onInterface(PROPERTIES)
            .call([this](const std::string& interface, const Dictionary& changed, const Strings&) {
                for (const auto& [row, value] : changed) {
                    if (interface == INTERFACE) {
                        Note(row + " " + mShow.at(row)(value));
                    }
                }
            });
        mProxy->finishRegistration();
        mConnection->enterEventLoopAsync();
    }

    template <class T>
    void Try(const std::string& row) {
        for (int i = 0; i < 10; ++i) {
            T value{};
            mMaker.Make(value);
            TryValue(row, value, value);
        }
    }
    template <class T>
    void TryValue(const std::string& row, const T& sent, const T& back) {
        const std::string wanted = Show(back);
        try {
            T found{};
            mProxy->callMethod("Echo" + row).onInterface(INTERFACE).withArguments(sent).storeResultsTo(found);
            Check("echoes", Show(found) == wanted,
                  "Echo" + row + ": " + wanted + " came back as " + Show(found));
            mExpected.push_back("Got" + row + " " + wanted);
            if constexpr (std::is_same_v<T, sdbus::Variant>) {
                return;  // a variant within a variant, which writing such a property takes, cannot be made
            }
            mProxy->setProperty(row).onInterface(INTERFACE).toValue(sent);
            mExpected.push_back(row + " " + wanted);
            const sdbus::Variant held = mProxy->getProperty(row).onInterface(INTERFACE);
            found = held.get<T>();
            Check("properties", Show(found) == wanted, row + ": " + wanted + " became " + Show(found));
        } catch (const sdbus::Error& error) {
            Check("echoes", false, row + ": " + wanted + ": " + error.what());
        }
    }

    /// The method refuses these arguments.
    template <class... A>
    void Refuses(const std::string& member, const std::string& name, const std::string& text,
                 const A&... argument) {
        Refused(member, name, text,
                [&] { mProxy->callMethod(member).onInterface(INTERFACE).withArguments(argument...); });
    }
    /// Method and property of the row refuse the value; `where` and `text` are what is told of it.
    template <class T>
    void RefusesValue(const std::string& row, const std::string& where, const std::string& text,
                      const T& value) {
        Refuses("Echo" + row, INVALID_ARGS, "argument 'x" + where + "': " + text, value);
        if constexpr (!std::is_same_v<T, sdbus::Variant>) {
            Refused(row, INVALID_ARGS, "property '" + row + where + "': " + text,
                    [&] { mProxy->setProperty(row).onInterface(INTERFACE).toValue(value); });
        }
    }

    /// The property is of another type than the value.
    template <class T>
    void RefusesType(const std::string& row, const std::string& sent, const std::string& wanted,
                     const T& value) {
        Refused(
            row, INVALID_ARGS,
            "Incorrect parameters for property '" + row + "', expected '" + wanted + "', got '" + sent + "'.",
            [&] { mProxy->setProperty(row).onInterface(INTERFACE).toValue(value); });
    }

    /// A pipe's end there and back: what is written into what comes back is read at the other end.
    void TryDescriptor() {
        std::array<int, 2> ends{};
        if (pipe(ends.data()) != 0) {
            Check("descriptors", false, "no pipe");
            return;
        }
        sdbus::UnixFd back;
        mProxy->callMethod("EchoDescriptor")
            .onInterface(INTERFACE)
            .withArguments(sdbus::UnixFd(ends[1]))
            .storeResultsTo(back);
        close(ends[1]);
        std::array<char, 8> read{};
        const bool isWritten = write(back.get(), "there", 6) == 6;
        back = sdbus::UnixFd();
        const bool isRead = isWritten && ::read(ends[0], read.data(), read.size()) == 6;
        Check("descriptors", isRead && std::string(read.data()) == "there", "another descriptor came back");
        close(ends[0]);
    }

    /// Many answers that come later, the first asked for the last.
    void TryLater() {
        constexpr std::uint32_t CALLS = 20;
        Strings answers;
        for (std::uint32_t i = 0; i < CALLS; ++i) {
            mProxy->callMethodAsync("Later")
                .onInterface(INTERFACE)
                .withArguments(std::uint32_t{5} * (CALLS - i), "call " + std::to_string(i))
                .uponReplyInvoke([this, &answers](const sdbus::Error* error, const std::string& text) {
                    const std::lock_guard lock(mMutex);
                    answers.push_back(error == nullptr ? text : error->what());
                    mChanged.notify_all();
                });
        }
        std::unique_lock lock(mMutex);
        mChanged.wait_for(lock, PATIENCE, [&] { return answers.size() == CALLS; });
        std::sort(answers.begin(), answers.end());
        Strings wanted;
        for (std::uint32_t i = 0; i < CALLS; ++i) {
            wanted.push_back("call " + std::to_string(i));
        }
        std::sort(wanted.begin(), wanted.end());
        Check("calls", answers == wanted, "answers that come later: " + Show(answers));
    }

    void Call(const std::string& member) { mProxy->callMethod(member).onInterface(INTERFACE); }

    /// Everything has been heard, in order, and nothing else.
    void CheckSignals() {
        std::unique_lock lock(mMutex);
        mChanged.wait_for(lock, PATIENCE, [&] { return mHeard.size() >= mExpected.size(); });
        Check("signals", mHeard.size() == mExpected.size(),
              std::to_string(mHeard.size()) + " signals instead of " + std::to_string(mExpected.size()));
        for (std::size_t i = 0; i < std::min(mHeard.size(), mExpected.size()); ++i) {
            Check("signals", mHeard[i] == mExpected[i], mExpected[i] + " was heard as " + mHeard[i]);
        }
    }

private:
    void Note(std::string signal) {
        const std::lock_guard lock(mMutex);
        mHeard.push_back(std::move(signal));
        mChanged.notify_all();
    }
    void Refused(const std::string& what, const std::string& name, const std::string& text,
                 const std::function<void()>& action) {
        try {
            action();
            Check("refusals", false, what + " was not refused, where this was expected: " + text);
        } catch (const sdbus::Error& error) {
            Check("refusals", error.getName() == name && error.getMessage() == text,
                  what + " was refused by " + error.what() + " instead of " + name + ": " + text);
        }
    }

    Maker mMaker;
    std::unique_ptr<sdbus::IConnection> mConnection;
    std::unique_ptr<sdbus::IProxy> mProxy;
    std::map<std::string, std::function<std::string(const sdbus::Variant&)>> mShow;
    Strings mExpected;
    std::mutex mMutex;
    std::condition_variable mChanged;
    Strings mHeard;  ///< guarded by mMutex
};

/// Calls `action.operator()<T>(row)` for each row whose values are of any kind.
template <class Action>
void ForEachRow(Action&& action) {
    action.template operator()<std::uint8_t>("Byte");
    action.template operator()<std::int16_t>("Int16");
    action.template operator()<std::uint16_t>("UInt16");
    action.template operator()<std::int32_t>("Int32");
    action.template operator()<std::uint32_t>("UInt32");
    action.template operator()<std::int64_t>("Int64");
    action.template operator()<std::uint64_t>("UInt64");
    action.template operator()<double>("Double");
    action.template operator()<bool>("Boolean");
    action.template operator()<std::string>("String");
    action.template operator()<sdbus::ObjectPath>("ObjectPath");
    action.template operator()<sdbus::Signature>("Signature");
    action.template operator()<std::vector<std::uint8_t>>("Bytes");
    action.template operator()<std::vector<double>>("Doubles");
    action.template operator()<Strings>("Strings");
    action.template operator()<std::vector<bool>>("Booleans");
    action.template operator()<std::vector<sdbus::Struct<double, std::string>>>("Pairs");
    action.template operator()<std::vector<std::vector<double>>>("Matrix");
    action.template operator()<std::map<std::string, std::string>>("Texts");
    action.template operator()<std::map<std::uint32_t, std::string>>("Numbers");
    action.template operator()<sdbus::Struct<std::int32_t, std::string, double>>("Structure");
    action.template operator()<sdbus::Struct<std::int32_t, sdbus::Struct<std::string, std::vector<double>>>>(
        "Nested");
    action.template operator()<sdbus::Variant>("Anything");
    action.template operator()<Dictionary>("DictAny");
}

void TryRefusals(Gallery& gallery) {
    using sdbus::Variant;
    const Variant seconds(std::uint32_t{5});
    gallery.RefusesValue("Color", "", "3 is not one of its values", std::uint32_t{3});
    gallery.RefusesValue("Mode", "", "'fast' is not one of its values", std::string("fast"));
    gallery.RefusesValue("Triple", "", "2 elements where 3 are wanted", std::vector<double>{1, 2});
    gallery.RefusesValue("Triple", "", "4 elements where 3 are wanted", std::vector<double>{1, 2, 3, 4});
    gallery.RefusesValue("Options", "", "the key 'Seconds' is missing", Dictionary{});
    gallery.RefusesValue("Options", ".Seconds", "'s' where 'u' is wanted",
                         Dictionary{{"Seconds", Variant(std::string("5"))}});
    gallery.RefusesValue("StrictOptions", "", "the key 'Minutes' is unknown",
                         Dictionary{{"Minutes", seconds}, {"Seconds", seconds}});
    gallery.RefusesValue("Choice", "", "'d' where 'u' or 's' or 'as' is wanted", Variant(1.5));
    Variant deep(std::uint32_t{5});
    for (int i = 0; i < 12; ++i) {  // a dictionary, its entry and a variant each
        deep = Variant(Dictionary{{"deeper", deep}});
    }
    gallery.RefusesValue("Anything", "", "more than 32 containers inside each other", deep);
    gallery.RefusesType("Byte", "u", "y", std::uint32_t{5});
    gallery.RefusesType("Strings", "s", "as", std::string("x"));

    const auto wrong = [](const std::string& sent, const std::string& member, const std::string& wanted) {
        return "Invalid arguments '" + sent + "' to call " + INTERFACE + "." + member + "(), expecting '" +
               wanted + "'.";
    };
    gallery.Refuses("EchoByte", INVALID_ARGS, wrong("u", "EchoByte", "y"), std::uint32_t{5});
    gallery.Refuses("EchoString", INVALID_ARGS, wrong("", "EchoString", "s"));
    gallery.Refuses("EchoNothing", "org.freedesktop.DBus.Error.UnknownMethod",
                    "Unknown method EchoNothing or interface " + INTERFACE + ".");
    gallery.Refuses("Fail", "com.example.Error.Hot", "too hot: 451 °F", std::string("com.example.Error.Hot"),
                    std::string("too hot: 451 °F"));
    gallery.Refuses("Throw", "org.freedesktop.DBus.Error.NoMemory", "out of memory",
                    std::string("bad_alloc"));
    gallery.Refuses("Throw", "org.freedesktop.DBus.Error.Failed", "the service failed internally",
                    std::string("int"));
    gallery.Refuses("Throw", "org.freedesktop.DBus.Error.AccessDenied", "NotPermitted",
                    std::string("NotPermitted"));
    gallery.Refuses("Throw", "mwl.StatusCode.Busy", "Busy", std::string("Busy"));
    gallery.Refuses("Drop", "org.freedesktop.DBus.Error.Failed", "the service dropped the call");
    gallery.Refuses("Remove", "mwl.StatusCode.NotFound", "NotFound", std::string("/com/example/none"));
}

}  // namespace

int main() {
    const char* const given = getenv("INTEROP_SEED");
    const unsigned long seed = given != nullptr ? strtoul(given, nullptr, 10) : std::random_device()();
    printf("seed %lu (INTEROP_SEED=%lu repeats it)\n", seed, seed);
    try {
        Gallery gallery(seed);
        ForEachRow([&]<class T>(const char* row) { gallery.Hear<T>(row); });
        gallery.Hear<std::vector<double>>("Triple");
        gallery.Hear<Dictionary>("Options");
        gallery.Hear<Dictionary>("StrictOptions");
        gallery.Hear<sdbus::Variant>("Choice");
        gallery.Hear<std::uint32_t>("Color");
        gallery.Hear<std::string>("Mode");
        gallery.Begin();

        ForEachRow([&]<class T>(const char* row) { gallery.Try<T>(row); });
        const std::vector<double> triple{1.5, -0.0, 1e300};
        gallery.TryValue("Triple", triple, triple);
        const Dictionary required{{"Seconds", sdbus::Variant(std::uint32_t{4294967295})}};
        Dictionary both = required;
        both.emplace("Note", sdbus::Variant(std::string("é")));
        Dictionary more = both;
        more.emplace("Later", sdbus::Variant(Strings{"unknown"}));
        gallery.TryValue("Options", required, required);
        gallery.TryValue("Options", both, both);
        gallery.TryValue("Options", more, both);
        gallery.TryValue("StrictOptions", required, required);
        gallery.TryValue("StrictOptions", both, both);
        for (const auto& choice : {sdbus::Variant(std::uint32_t{7}), sdbus::Variant(std::string("seven")),
                                   sdbus::Variant(Strings{"7", ""})}) {
            gallery.TryValue("Choice", choice, choice);
        }
        for (std::uint32_t color = 0; color < 3; ++color) {
            gallery.TryValue("Color", color, color);
        }
        for (const char* const mode : {"off", "eco", "full"}) {
            gallery.TryValue("Mode", std::string(mode), std::string(mode));
        }
        gallery.TryDescriptor();
        gallery.TryLater();
        gallery.Call("Closed");
        TryRefusals(gallery);
        gallery.CheckSignals();
    } catch (const std::exception& error) {
        Check("calls", false, error.what());
    }
    for (const auto& [kind, count] : gDone) {
        printf("sdbus-c++: %s: %d\n", kind.c_str(), count);
    }
    printf("%d failures\n", gFailures);
    return gFailures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
