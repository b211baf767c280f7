#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <tern/typed/proxy.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "served_bus.h"

namespace tern::test {

inline constexpr const char* PEER = "com.example.Peer";
inline constexpr const char* PEER_PATH = "/peer";

enum class Heat : std::uint32_t { Off = 1, On = 2 };
constexpr auto DBusEnum(Heat) {
    return std::array{Heat::Off, Heat::On};
}

/// What a service that knows nothing of the typed layer offers, some of it wrongly.
struct Peer1 {
    using Number = std::uint32_t;
    static constexpr const char* NAME = "com.example.Peer1";
    static constexpr mwl::Typed::Method<Number(Number, Number)> Add{"Add", {"a", "b", "sum"}};
    static constexpr mwl::Typed::Method<std::string_view(std::string_view)> Echo{"Echo", {"text", "same"}};
    /// Answered once Let is called.
    static constexpr mwl::Typed::Method<Number(Number)> Hold{"Hold", {"number", "same"}};
    static constexpr mwl::Typed::Method<Number()> Let{"Let", {"count"}};
    /// How many calls of Nothing there were.
    static constexpr mwl::Typed::Method<Number()> Count{"Count", {"count"}};
    static constexpr mwl::Typed::Method<void()> Nothing{"Nothing", {}, mwl::Typed::NO_REPLY};
    static constexpr mwl::Typed::Method<void()> Fail{"Fail"};
    /// Answered with a number.
    static constexpr mwl::Typed::Method<std::string()> Wrong{"Wrong", {"text"}};
    /// Answered with 7.
    static constexpr mwl::Typed::Method<Heat()> Heating{"Heating", {"heat"}};
    static constexpr mwl::Typed::Method<mwl::Typed::Results<std::string, Heat>()> Both{"Both",
                                                                                       {"text", "heat"}};
    static constexpr mwl::Typed::Method<std::string(Number)> Big{"Big", {"bytes", "text"}};
    /// Sends the signal, then answers.
    static constexpr mwl::Typed::Method<void(Number)> Tell{"Tell", {"number"}};
    static constexpr mwl::Typed::Method<void()> Missing{"Missing"};
    static constexpr mwl::Typed::Property<Number> Level{"Level"};
    /// Is a number.
    static constexpr mwl::Typed::Property<std::string_view> Title{"Title"};
    static constexpr mwl::Typed::WritableProperty<double> Target{"Target"};
    static constexpr mwl::Typed::WritableProperty<std::string> Note{"Note"};
    static constexpr mwl::Typed::Signal<Number> Told{"Told", {"number"}};
    static constexpr mwl::Typed::Members<Add, Echo, Hold, Let, Count, Nothing, Fail, Wrong, Heating, Both,
                                         Big, Tell, Missing, Level, Title, Target, Note, Told>
        ALL{};
};

/// That service, by sd-bus alone, on a thread or in a process of its own.
class PeerService {
public:
    PeerService() {
        std::promise<void> ready;
        mThread = std::thread([this, &ready] { Main([&ready] { ready.set_value(); }); });
        ready.get_future().wait();
    }
    ~PeerService() { End(); }
    PeerService(const PeerService&) = delete;
    PeerService& operator=(const PeerService&) = delete;

    void End() {
        if (mThread.joinable()) {
            mIsEnding = true;
            eventfd_write(mEnd, 1);
            mThread.join();
        }
    }

    /// In a child process, which serves until it is killed. Call it while there is no other thread.
    static pid_t Fork() {
        int ready[2];
        Peer::Check(pipe(ready));
        const pid_t child = fork();
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            PeerService service{InPlace()};
            service.Main([&] { static_cast<void>(write(ready[1], "r", 1) + close(ready[0])); });
            _exit(0);
        }
        char byte = 0;
        EXPECT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
        close(ready[1]);
        return child;
    }

private:
    struct InPlace {};
    using Message = mwl::Handle<sd_bus_message, sd_bus_message_unref>;

    explicit PeerService(InPlace) {}

    void Main(const std::function<void()>& onReady) {
        sd_bus* bus = nullptr;
        Peer::Check(sd_bus_open_system(&bus));
        const mwl::Handle<sd_bus, sd_bus_flush_close_unref> owner(bus);
        Peer::Check(sd_bus_add_object_vtable(bus, nullptr, PEER_PATH, Peer1::NAME, VTABLE, this));
        Peer::Check(sd_bus_request_name(bus, PEER, 0));
        onReady();
        while (!mIsEnding) {
            const int r = sd_bus_process(bus, nullptr);
            if (r < 0) {
                break;  // the message bus has gone
            }
            if (r == 0) {
                pollfd polled[2] = {{sd_bus_get_fd(bus), static_cast<short>(sd_bus_get_events(bus)), 0},
                                    {mEnd, POLLIN, 0}};
                poll(polled, 2, -1);
            }
            Ordered::Order();
        }
        mHeld.clear();
    }

    static PeerService& Self(void* userdata) { return *static_cast<PeerService*>(userdata); }
    static std::uint32_t Number(sd_bus_message* call) {
        std::uint32_t number = 0;
        Peer::Check(sd_bus_message_read_basic(call, 'u', &number));
        return number;
    }
    static int Add(sd_bus_message* call, void*, sd_bus_error*) {
        const std::uint32_t a = Number(call);
        return sd_bus_reply_method_return(call, "u", a + Number(call));
    }
    static int Echo(sd_bus_message* call, void*, sd_bus_error*) {
        const char* text = nullptr;
        Peer::Check(sd_bus_message_read_basic(call, 's', &text));
        return sd_bus_reply_method_return(call, "s", text);
    }
    static int Hold(sd_bus_message* call, void* userdata, sd_bus_error*) {
        Self(userdata).mHeld.emplace_back(sd_bus_message_ref(call));
        return 1;
    }
    static int Let(sd_bus_message* call, void* userdata, sd_bus_error*) {
        const std::vector<Message> held = std::exchange(Self(userdata).mHeld, {});
        for (const Message& each : held) {
            Peer::Check(sd_bus_reply_method_return(each.get(), "u", Number(each.get())));
        }
        return sd_bus_reply_method_return(call, "u", static_cast<std::uint32_t>(held.size()));
    }
    static int Count(sd_bus_message* call, void* userdata, sd_bus_error*) {
        return sd_bus_reply_method_return(call, "u", Self(userdata).mNothings);
    }
    static int Nothing(sd_bus_message* call, void* userdata, sd_bus_error*) {
        EXPECT_EQ(sd_bus_message_get_expect_reply(call), 0);
        ++Self(userdata).mNothings;
        return 1;
    }
    static int Fail(sd_bus_message* call, void*, sd_bus_error*) {
        return sd_bus_reply_method_errorf(call, "com.example.Error.TooHot", "more than 100 degrees");
    }
    static int Late(sd_bus_message* call, void*, sd_bus_error*) {
        return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_TIMEOUT, "the boiler does not answer");
    }
    static int Wrong(sd_bus_message* call, void*, sd_bus_error*) {
        return sd_bus_reply_method_return(call, "u", 5U);
    }
    static int Heating(sd_bus_message* call, void*, sd_bus_error*) {
        return sd_bus_reply_method_return(call, "u", 7U);
    }
    static int Both(sd_bus_message* call, void*, sd_bus_error*) {
        return sd_bus_reply_method_return(call, "su", "warm", 7U);
    }
    static int Big(sd_bus_message* call, void*, sd_bus_error*) {
        const std::string text(Number(call), 'x');
        return sd_bus_reply_method_return(call, "s", text.c_str());
    }
    static int Tell(sd_bus_message* call, void*, sd_bus_error*) {
        const std::uint32_t number = Number(call);
        Peer::Check(
            sd_bus_emit_signal(sd_bus_message_get_bus(call), PEER_PATH, Peer1::NAME, "Told", "u", number));
        return sd_bus_reply_method_return(call, "");
    }
    static int GetTitle(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                        sd_bus_error*) {
        return sd_bus_message_append(reply, "u", 5U);
    }

    static int GetLevel(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                        sd_bus_error*) {
        return sd_bus_message_append(reply, "u", 21U);
    }
    static int GetTarget(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                         void* userdata, sd_bus_error*) {
        return sd_bus_message_append(reply, "d", Self(userdata).mTarget);
    }
    static int SetTarget(sd_bus*, const char*, const char*, const char*, sd_bus_message* value,
                         void* userdata, sd_bus_error*) {
        return sd_bus_message_read_basic(value, 'd', &Self(userdata).mTarget);
    }
    static int GetNote(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* userdata,
                       sd_bus_error*) {
        return sd_bus_message_append(reply, "s", Self(userdata).mNote.c_str());
    }
    static int SetNote(sd_bus*, const char*, const char*, const char*, sd_bus_message* value, void* userdata,
                       sd_bus_error*) {
        const char* text = nullptr;
        const int r = sd_bus_message_read_basic(value, 's', &text);
        Self(userdata).mNote = text;
        return r;
    }

    static constexpr std::uint64_t OPEN = SD_BUS_VTABLE_UNPRIVILEGED;
    static inline const sd_bus_vtable VTABLE[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Add", "uu", "u", Add, OPEN),
        SD_BUS_METHOD("Echo", "s", "s", Echo, OPEN),
        SD_BUS_METHOD("Hold", "u", "u", Hold, OPEN),
        SD_BUS_METHOD("Let", "", "u", Let, OPEN),
        SD_BUS_METHOD("Count", "", "u", Count, OPEN),
        SD_BUS_METHOD("Nothing", "", "", Nothing, OPEN | SD_BUS_VTABLE_METHOD_NO_REPLY),
        SD_BUS_METHOD("Fail", "", "", Fail, OPEN),
        SD_BUS_METHOD("Late", "", "", Late, OPEN),
        SD_BUS_METHOD("Wrong", "", "u", Wrong, OPEN),
        SD_BUS_METHOD("Heating", "", "u", Heating, OPEN),
        SD_BUS_METHOD("Both", "", "su", Both, OPEN),
        SD_BUS_METHOD("Big", "u", "s", Big, OPEN),
        SD_BUS_METHOD("Tell", "u", "", Tell, OPEN),
        SD_BUS_PROPERTY("Level", "u", GetLevel, 0, 0),
        SD_BUS_PROPERTY("Title", "u", GetTitle, 0, 0),
        SD_BUS_WRITABLE_PROPERTY("Target", "d", GetTarget, SetTarget, 0, OPEN),
        SD_BUS_WRITABLE_PROPERTY("Note", "s", GetNote, SetNote, 0, OPEN),
        SD_BUS_SIGNAL("Told", "u", 0),
        SD_BUS_VTABLE_END};

    std::thread mThread;
    std::atomic<bool> mIsEnding{false};
    const int mEnd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::vector<Message> mHeld;
    std::uint32_t mNothings = 0;
    double mTarget = 20.5;
    std::string mNote;
};

/// Runs a call that `make` makes on the D-Bus thread, and waits for its outcome.
template <typename Make>
auto Ask(Served& served, Make make) {
    using R = typename std::invoke_result_t<Make>::Result;
    std::promise<mwl::Typed::Outcome<R>> done;
    auto answer = done.get_future();
    mwl::Typed::Pending pending;
    served.On([&] {
        pending =
            make().Then([&done](mwl::Typed::Outcome<R> outcome) { done.set_value(std::move(outcome)); });
    });
    EXPECT_EQ(answer.wait_for(GENEROUS_LIMIT), std::future_status::ready);
    mwl::Typed::Outcome<R> outcome = answer.get();
    served.On([&] { pending.Reset(); });
    return outcome;
}

/// A service that calls the peer through a proxy.
class PeerProxyTest : public testing::Test {
protected:
    PrivateBus daemon;
    PeerService service;
    Served served;
    mwl::Typed::Proxy<Peer1> proxy{*served.typed, PEER, PEER_PATH};
};

/// "name: text" of an error, "" of success.
template <typename R>
std::string Said(const mwl::Typed::Outcome<R>& outcome) {
    return outcome.IsOk() ? "" : outcome.GetError().GetName() + ": " + outcome.GetError().GetText();
}

}  // namespace tern::test
