// A service that receives signals, by a plain match or by a subscription, and the peer that sends them.
//   bench_receiver send KIND COUNT                   writes a line to standard output once it has its name,
//                                                    sends when it is asked to, and ends
//   bench_receiver hand|typed KIND COUNT [unique]    with `unique` it listens to the peer's unique name
//     KIND: number, text, four, doubles

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <tern/service/dbus_server_manager.h>
#include <tern/service/event_loop.h>
#include <tern/typed/bus.h>
#include <tern/typed/subscription.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace mwl::Typed;

constexpr const char* NAME = "com.example.Sender";
constexpr const char* PATH = "/com/example/sender";

struct Sender1 {
    static constexpr const char* NAME = "com.example.Sender1";
    static constexpr Signal<std::uint32_t> Number{"Number"};
    static constexpr Signal<std::string_view> Text{"Text"};
    static constexpr Signal<std::uint32_t, double, bool, std::string_view> Four{"Four"};
    static constexpr Signal<std::vector<double>> Doubles{"Doubles"};
};
constexpr const char* INTERFACE = Sender1::NAME;

void Check(int r, const char* what) {
    if (r < 0) {
        std::fprintf(stderr, "%s: %d\n", what, r);
        std::_Exit(1);
    }
}

/// The peer: waits for the call, sends, and leaves.
int Send(const std::string& kind, int count) {
    sd_bus* bus = nullptr;
    Check(sd_bus_open_system(&bus), "open");
    Check(sd_bus_request_name(bus, NAME, 0), "name");
    Check(std::puts("ready"), "standard output");
    Check(std::fflush(stdout), "standard output");
    for (;;) {
        sd_bus_message* call = nullptr;
        const int r = sd_bus_process(bus, &call);
        Check(r, "process");
        if (call != nullptr && sd_bus_message_is_method_call(call, INTERFACE, "Go") > 0) {
            break;
        }
        if (r == 0) {
            Check(sd_bus_wait(bus, UINT64_MAX), "wait");
        }
    }
    const std::vector<double> doubles(64, 0.5);
    for (int i = 0; i < count; ++i) {
        sd_bus_message* signal = nullptr;
        const char* const member = kind == "number" ? "Number"
                                   : kind == "text" ? "Text"
                                   : kind == "four" ? "Four"
                                                    : "Doubles";
        Check(sd_bus_message_new_signal(bus, &signal, PATH, INTERFACE, member), "signal");
        if (kind == "number") {
            Check(sd_bus_message_append(signal, "u", 7U), "append");
        } else if (kind == "text") {
            Check(sd_bus_message_append(signal, "s", "a text of twenty-odd chars"), "append");
        } else if (kind == "four") {
            Check(sd_bus_message_append(signal, "udbs", 7U, 2.0, 1, "text"), "append");
        } else {
            Check(sd_bus_message_append_array(signal, 'd', doubles.data(), doubles.size() * sizeof(double)),
                  "append");
        }
        Check(sd_bus_send(bus, signal, nullptr), "send");
        sd_bus_message_unref(signal);
    }
    Check(sd_bus_flush(bus), "flush");
    sd_bus_flush_close_unref(bus);
    return 0;
}

class Loop : public mw::tern::EventLoop {
public:
    Loop() { Check(sd_event_new(&mEvent), "loop"); }
    int Run() { return sd_event_loop(mEvent); }
    void Turn() { Check(sd_event_run(mEvent, 1000), "turn"); }
    void End() { sd_event_exit(mEvent, 0); }
};

/// The work of both ways with the values.
struct Receiver {
    Loop loop;
    int left = 0;
    double sum = 0;

    void Take(double value) {
        sum += value;
        if (--left == 0) {
            loop.End();
        }
    }
};

int OnNumber(sd_bus_message* signal, void* userdata, sd_bus_error*) {
    std::uint32_t value = 0;
    const int r = sd_bus_message_read(signal, "u", &value);
    if (r > 0) {
        static_cast<Receiver*>(userdata)->Take(value);
    }
    return r < 0 ? r : 0;
}
int OnText(sd_bus_message* signal, void* userdata, sd_bus_error*) {
    const char* text = nullptr;
    const int r = sd_bus_message_read(signal, "s", &text);
    if (r > 0) {
        static_cast<Receiver*>(userdata)->Take(static_cast<double>(std::string_view(text).size()));
    }
    return r < 0 ? r : 0;
}
int OnFour(sd_bus_message* signal, void* userdata, sd_bus_error*) {
    std::uint32_t number = 0;
    double real = 0;
    int flag = 0;
    const char* text = nullptr;
    const int r = sd_bus_message_read(signal, "udbs", &number, &real, &flag, &text);
    if (r > 0) {
        static_cast<Receiver*>(userdata)->Take(number + real + flag +
                                               static_cast<double>(std::string_view(text).size()));
    }
    return r < 0 ? r : 0;
}
int OnDoubles(sd_bus_message* signal, void* userdata, sd_bus_error*) {
    const void* data = nullptr;
    std::size_t size = 0;
    const int r = sd_bus_message_read_array(signal, 'd', &data, &size);
    if (r > 0) {
        const auto* const first = static_cast<const double*>(data);
        const std::vector<double> values(first, first + size / sizeof(double));
        static_cast<Receiver*>(userdata)->Take(values.front());
    }
    return r < 0 ? r : 0;
}
int OnListening(sd_bus_message*, void*, sd_bus_error*) {
    return 0;
}

Subscription Subscribe(const std::shared_ptr<Remote>& peer, const std::string& kind, Receiver& receiver) {
    if (kind == "number") {
        return SubscribeTo(peer, INTERFACE, Sender1::Number,
                           [&receiver](std::uint32_t value) { receiver.Take(value); });
    }
    if (kind == "text") {
        return SubscribeTo(peer, INTERFACE, Sender1::Text, [&receiver](std::string_view text) {
            receiver.Take(static_cast<double>(text.size()));
        });
    }
    if (kind == "four") {
        return SubscribeTo(
            peer, INTERFACE, Sender1::Four,
            [&receiver](std::uint32_t number, double real, bool flag, std::string_view text) {
                receiver.Take(number + real + (flag ? 1 : 0) + static_cast<double>(text.size()));
            });
    }
    return SubscribeTo(peer, INTERFACE, Sender1::Doubles,
                       [&receiver](const std::vector<double>& values) { receiver.Take(values.front()); });
}

std::string OwnerOf(sd_bus* bus) {
    sd_bus_message* reply = nullptr;
    const char* owner = nullptr;
    Check(sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                             "GetNameOwner", nullptr, &reply, "s", NAME),
          "GetNameOwner");
    Check(sd_bus_message_read(reply, "s", &owner), "GetNameOwner");
    const std::string name = owner;
    sd_bus_message_unref(reply);
    return name;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        return 2;
    }
    const std::string how = argv[1];
    const std::string kind = argv[2];
    const int count = std::atoi(argv[3]);
    if (how == "send") {
        return Send(kind, count);
    }
    Receiver receiver;
    receiver.left = count;
    mw::tern::DBusServerManager manager("");
    Bus typed;
    if (manager.Connect() != StatusCode::Ok || manager.AttachLoop(receiver.loop) != StatusCode::Ok ||
        typed.Open(manager, receiver.loop) != StatusCode::Ok) {
        return 1;
    }
    sd_bus* const bus = manager.GetBus();
    const std::string owner = OwnerOf(bus);
    const std::string name = argc > 4 ? owner : NAME;
    Subscription subscription;
    if (how == "typed") {
        subscription = Subscribe(std::make_shared<Remote>(typed, name, PATH), kind, receiver);
        while (subscription.GetStatus() == StatusCode::Busy) {
            receiver.loop.Turn();
        }
    } else {
        const bool isNumber = kind == "number";
        const bool isText = kind == "text";
        const bool isFour = kind == "four";
        Check(sd_bus_match_signal_async(bus, nullptr, name.c_str(), PATH, INTERFACE,
                                        isNumber ? "Number"
                                        : isText ? "Text"
                                        : isFour ? "Four"
                                                 : "Doubles",
                                        isNumber ? OnNumber
                                        : isText ? OnText
                                        : isFour ? OnFour
                                                 : OnDoubles,
                                        OnListening, &receiver),
              "match");
    }
    Check(sd_bus_call_method_async(bus, nullptr, owner.c_str(), PATH, INTERFACE, "Go", nullptr, nullptr, ""),
          "go");
    const int result = receiver.loop.Run();
    std::printf("sum %.1f\n", receiver.sum);
    return result != 0 || receiver.left != 0 ? 1 : 0;
}
