// The code of docs/typed.md, compiled and run: each block there stands here word for word (docs.typed checks
// that).

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <systemd/sd-bus.h>
#include <tern/threading/signals.h>
#include <tern/threading/thread_pool.h>
#include <tern/threading/threads_monitor.h>
#include <tern/threading/threads_watcher.h>
#include <tern/typed/bus.h>
#include <tern/typed/caller.h>
#include <tern/typed/implements.h>
#include <tern/typed/reply.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "support/log_capture.h"
#include "support/private_bus.h"
#include "typed/served_bus.h"

namespace guide {

using mwl::StatusCode;
using namespace mwl::Typed;

struct Heater1 {
    static constexpr const char* NAME = "com.example.Heater1";

    static constexpr Method<void(std::uint32_t)> Boost{"Boost", {"seconds"}, OPEN, "Heats for a while."};
    static constexpr Property<double> Temperature{"Temperature", EMITS, "Degrees Celsius."};
    static constexpr WritableProperty<double> Target{"Target", EMITS | OPEN, "Degrees Celsius."};
    static constexpr Signal<double> Measured{"Measured", {"celsius"}};

    static constexpr Members<Boost, Temperature, Target, Measured> ALL{};
};

class Heater final : public Implements<Heater, Heater1> {
public:
    static constexpr auto Describe() {
        return Bindings<Bind<Heater1::Boost, &Heater::Boost>,
                        Bind<Heater1::Temperature, &Heater::mTemperature>,
                        Bind<Heater1::Target, &Heater::GetTarget, &Heater::SetTarget>>();
    }

    void Measure(double celsius) {
        mTemperature = celsius;
        Changed<Heater1::Temperature>();   // one PropertiesChanged, when the handler or job is done
        Emit<Heater1::Measured>(celsius);  // at once
    }

private:
    Outcome<void> Boost(std::uint32_t seconds) {
        if (seconds > 3600) {
            return Error::InvalidArgs("more than an hour");
        }
        mBoost = seconds;
        return {};
    }
    double GetTarget() const { return mTarget; }
    Outcome<void> SetTarget(double celsius) {
        if (celsius < 5 || celsius > 30) {
            return Error::InvalidArgs("the target is 5 to 30 degrees");
        }
        mTarget = celsius;
        return {};
    }

    double mTemperature = 20.0;
    double mTarget = 20.0;
    std::uint32_t mBoost = 0;
};

struct Archive1 {
    static constexpr const char* NAME = "com.example.Archive1";

    static constexpr Method<Results<std::string, std::uint64_t>(std::string_view)> Find{
        "Find", {"name", "path", "size"}, OPEN};
    static constexpr Method<std::string(std::string_view)> Pack{
        "Pack", {"password", "path"}, OPEN | SENSITIVE};
    static constexpr Method<void(std::string_view)> Delete{"Delete", {"name"}, Checked(), "Root only."};
    static constexpr Method<std::string()> Who{"Who", {"caller"}, OPEN};

    static constexpr Members<Find, Pack, Delete, Who> ALL{};
};

class Archive final : public Implements<Archive, Archive1> {
public:
    explicit Archive(mwl::Threading::ThreadPool::ThreadPool& pool) : mPool(pool) {}

    static constexpr auto Describe() {
        return Bindings<Bind<Archive1::Find, &Archive::Find>, Bind<Archive1::Pack, &Archive::Pack>,
                        Bind<Archive1::Delete, &Archive::Delete>, Bind<Archive1::Who, &Archive::Who>>();
    }

private:
    Outcome<Results<std::string, std::uint64_t>> Find(std::string_view name) {
        const auto found = mFiles.find(name);
        if (found == mFiles.end()) {
            return Error("com.example.Archive1.Error.NoSuchFile", "there is no file of this name");
        }
        return Results<std::string, std::uint64_t>(found->first, found->second);
    }

    void Pack(Reply<std::string> reply, std::string password) {
        mPool.QueueUnique([reply = std::move(reply), password = std::move(password)]() mutable {
            if (password.empty()) {
                reply.Fail(Error::InvalidArgs("no password"));
            } else {
                reply.Return("/var/lib/archive.zip");
            }
        });
    }

    StatusCode Delete(const Caller& caller, std::string_view name) {
        mDeletedBy = caller.GetSender();
        const auto found = mFiles.find(name);
        if (found == mFiles.end()) {
            return StatusCode::NotFound;
        }
        mFiles.erase(found);
        return StatusCode::Ok;
    }

    std::string Who(const Caller& caller) { return caller.GetSender(); }

    mwl::Threading::ThreadPool::ThreadPool& mPool;
    std::map<std::string, std::uint64_t, std::less<>> mFiles{{"log", 42}};
    std::string mDeletedBy;
};

struct Point {
    double x;
    double y;
};

struct Options {
    std::uint32_t seconds = 0;
    std::optional<std::string> note;

    static constexpr auto DBusFields() {
        return Fields(Field("Seconds", &Options::seconds), Field("Note", &Options::note));
    }
};

enum class Mode { Off, Eco, Full };
constexpr auto DBusEnum(Mode) {
    return std::array{EnumText<Mode>{Mode::Off, "off"}, EnumText<Mode>{Mode::Eco, "eco"},
                      EnumText<Mode>{Mode::Full, "full"}};
}

struct Draw1 {
    static constexpr const char* NAME = "com.example.Draw1";

    static constexpr Method<double(std::vector<Point>)> Length{"Length", {"points", "length"}, OPEN};
    static constexpr Method<std::string(Options)> Start{"Start", {"options", "answer"}, OPEN};
    static constexpr Method<Mode(Mode)> Next{"Next", {"mode", "next"}, OPEN};
    static constexpr Method<std::string(std::map<std::string, Any>)> Show{"Show", {"values", "text"}, OPEN};
    static constexpr Method<void(BorrowedFd)> Print{"Print", {"file"}, OPEN};

    static constexpr Members<Length, Start, Next, Show, Print> ALL{};
};

class Draw final : public Implements<Draw, Draw1> {
public:
    static constexpr auto Describe() {
        return Bindings<Bind<Draw1::Length, &Draw::Length>, Bind<Draw1::Start, &Draw::Start>,
                        Bind<Draw1::Next, &Draw::Next>, Bind<Draw1::Show, &Draw::Show>,
                        Bind<Draw1::Print, &Draw::Print>>();
    }

private:
    double Length(const std::vector<Point>& points) {
        double sum = 0.0;
        for (std::size_t i = 1; i < points.size(); ++i) {
            sum += points[i].x - points[i - 1].x + points[i].y - points[i - 1].y;
        }
        return sum;
    }
    std::string Start(const Options& options) {
        return std::to_string(options.seconds) + " s, " + options.note.value_or("no note");
    }
    Mode Next(Mode mode) { return mode == Mode::Off ? Mode::Eco : Mode::Full; }
    std::string Show(const std::map<std::string, Any>& values) {
        std::string text;
        for (const auto& [name, value] : values) {
            text += name + "=" + value.ToText() + ";";
        }
        return text;
    }
    StatusCode Print(BorrowedFd file) {
        return write(file.fd, "drawn", 5) == 5 ? StatusCode::Ok : StatusCode::IoError;
    }
};

using tern::test::Peer;
using tern::test::Served;

class TypedGuide : public testing::Test {
protected:
    std::string Call(const std::string& command) {
        // A client that knows nothing of this library.
        FILE* const busctl =
            popen(("busctl --system call com.example.Typed " + command + " 2>&1").c_str(), "r");
        std::string text;
        for (int c = fgetc(busctl); c != EOF && c != '\n'; c = fgetc(busctl)) {
            text.push_back(static_cast<char>(c));
        }
        pclose(busctl);
        return text;
    }

    tern::test::PrivateBus mDaemon;
    tern::test::LogCapture mLog;
};

TEST_F(TypedGuide, AnObjectIsExportedCalledAndGone) {
    Heater* heater = nullptr;
    Served served([&](Served& it) {
        mwl::Typed::Bus& bus = *it.typed;
        auto made = std::make_unique<Heater>();
        heater = made.get();
        it.exported.push_back(bus.Export("/com/example/Heater", std::move(made)));
    });
    Peer peer;
    peer.Listen();
    EXPECT_EQ(Call("/com/example/Heater com.example.Heater1 Boost u 60"), "");
    EXPECT_EQ(Call("/com/example/Heater com.example.Heater1 Boost u 6000"), "Call failed: more than an hour");
    EXPECT_EQ(Call("/com/example/Heater org.freedesktop.DBus.Properties Get ss com.example.Heater1 Target"),
              "v d 20");
    EXPECT_EQ(
        Call("/com/example/Heater org.freedesktop.DBus.Properties Set ssv com.example.Heater1 Target d 90"),
        "Call failed: the target is 5 to 30 degrees");
    served.typed->Post([heater] { heater->Measure(21.5); });
    EXPECT_EQ(peer.WaitForSignals(2).size(), 2U);
}

TEST_F(TypedGuide, ResultsLateAnswersAndCallers) {
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    mwl::Threading::ThreadsWatcher watcher(monitor);
    mwl::Threading::ThreadPool::ThreadPool pool(1, watcher, signals);
    pool.Start();
    {
        Served served([&](Served& it) {
            it.exported.push_back(it.typed->Export("/com/example/Archive", std::make_unique<Archive>(pool)));
        });
        const std::string interface = "/com/example/Archive com.example.Archive1 ";
        EXPECT_EQ(Call(interface + "Find s log"), "st \"log\" 42");
        EXPECT_EQ(Call(interface + "Find s other"), "Call failed: there is no file of this name");
        EXPECT_EQ(Call(interface + "Pack s secret"), "s \"/var/lib/archive.zip\"");
        EXPECT_EQ(Call(interface + "Pack s ''"), "Call failed: no password");
        EXPECT_EQ(Call(interface + "Delete s log"), "");
        EXPECT_EQ(Call(interface + "Delete s log"), "Call failed: NotFound");
        EXPECT_EQ(Call(interface + "Who").substr(0, 4), "s \":");
    }
    pool.Stop(false);
}

TEST_F(TypedGuide, StructuresOptionsEnumerationsAnythingAndDescriptors) {
    Served served([&](Served& it) {
        it.exported.push_back(it.typed->Export("/com/example/Draw", std::make_unique<Draw>()));
    });
    const std::string interface = "/com/example/Draw com.example.Draw1 ";
    EXPECT_EQ(Call(interface + "Length 'a(dd)' 2 0 0 3 4"), "d 7");
    EXPECT_EQ(Call(interface + "Start 'a{sv}' 2 Seconds u 5 Other s x"), "s \"5 s, no note\"");
    EXPECT_EQ(Call(interface + "Start 'a{sv}' 1 Note s x"),
              "Call failed: argument 'options': the key 'Seconds' is missing");
    EXPECT_EQ(Call(interface + "Next s off"), "s \"eco\"");
    EXPECT_EQ(Call(interface + "Next s fast"),
              "Call failed: argument 'mode': 'fast' is not one of its values");
    EXPECT_EQ(Call(interface + "Show 'a{sv}' 1 Level u 5"), "s \"Level=5;\"");
}

TEST_F(TypedGuide, ObjectsComeAndGoBelowAManager) {
    Served served([&](Served& it) {
        mwl::Typed::Bus& bus = *it.typed;
        EXPECT_EQ(bus.AddObjectManager("/com/example"), StatusCode::Ok);
    });
    Peer peer;
    peer.Listen();
    served.On([&] {
        Exported heater = served.typed->Export("/com/example/heaters/1", std::make_unique<Heater>());
        EXPECT_EQ(heater.GetStatus(), StatusCode::Ok);
        served.exported.push_back(std::move(heater));
    });
    EXPECT_EQ(peer.Managed("/com/example"),
              std::set<std::string>{"/com/example/heaters/1 com.example.Heater1"});
    served.On([&] { served.exported.clear(); });
    EXPECT_TRUE(peer.Managed("/com/example").empty());
}

TEST_F(TypedGuide, TheContractPrintsItsXml) {
    char* text = nullptr;
    std::size_t size = 0;
    FILE* const file = open_memstream(&text, &size);
    WriteIntrospection<Heater1>(file);
    fclose(file);
    const std::string xml(text, size);
    free(text);
    EXPECT_NE(xml.find("<arg type=\"u\" name=\"seconds\" direction=\"in\"/>"), std::string::npos) << xml;
    EXPECT_NE(xml.find("Heats for a while."), std::string::npos);
}

}  // namespace guide
