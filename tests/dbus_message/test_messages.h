#pragma once

#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <cstddef>
#include <stdexcept>
#include <string>

#include "foundation/handle.h"
#include "foundation/unique_fd.h"

namespace tern::test {

using BusMessage = mwl::Handle<sd_bus_message, sd_bus_message_unref>;
using Bus = mwl::Handle<sd_bus, sd_bus_close_unref>;

constexpr std::size_t MEBIBYTE = std::size_t{1024} * 1024;

inline void Require(int result, const char* what) {
    if (result < 0) {
        throw std::runtime_error(std::string(what) + ": " + std::to_string(result));
    }
}

/// Makes sealed messages, ready to be read, as they would arrive; nobody is connected.
class TestMessages {
public:
    TestMessages() {
        int ends[2];
        Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), "socketpair");
        mPeer.Reset(ends[1]);
        sd_bus* bus = nullptr;
        Require(sd_bus_new(&bus), "sd_bus_new");
        mBus.reset(bus);
        Require(sd_bus_set_fd(bus, ends[0], ends[0]), "sd_bus_set_fd");
        Require(sd_bus_start(bus), "sd_bus_start");
    }

    /// A message that is not sealed yet.
    BusMessage New() {
        sd_bus_message* message = nullptr;
        Require(sd_bus_message_new_method_call(mBus.get(), &message, "org.example.Peer", "/org/example",
                                               "org.example.If", "Call"),
                "sd_bus_message_new_method_call");
        return BusMessage(message);
    }

    static void Seal(const BusMessage& message) {
        Require(sd_bus_message_seal(message.get(), 1, 0), "sd_bus_message_seal");
        Require(sd_bus_message_rewind(message.get(), 1), "sd_bus_message_rewind");
    }

    /// A sealed message with the body that sd_bus_message_append(3) makes of the arguments.
    template <typename... Arguments>
    BusMessage Make(const char* types, Arguments... arguments) {
        BusMessage message = New();
        if constexpr (sizeof...(arguments) > 0) {
            Require(sd_bus_message_append(message.get(), types, arguments...), "sd_bus_message_append");
        }
        Seal(message);
        return message;
    }

    /// A sealed message "a{sv}" with the entries that `append` puts in.
    template <typename Append>
    BusMessage MakeDictionary(Append append) {
        BusMessage message = New();
        Require(sd_bus_message_open_container(message.get(), 'a', "{sv}"), "sd_bus_message_open_container");
        append(message.get());
        Require(sd_bus_message_close_container(message.get()), "sd_bus_message_close_container");
        Seal(message);
        return message;
    }

private:
    mwl::UniqueFd mPeer;
    Bus mBus;
};

}  // namespace tern::test
