#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <tern/typed/codec.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>

#include "foundation/handle.h"
#include "support/wait_until.h"

namespace tern::test {

/// A bus message, released at its end.
using Message = mwl::Handle<sd_bus_message, sd_bus_message_unref>;

/// Two connections of sd-bus with each other and nobody between them, both served by the calling thread. What
/// the typed layer does to messages is seen here as it goes over the wire.
class Wire {
public:
    Wire() {
        int ends[2];
        Check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends));
        mServer = New(ends[0]);
        sd_id128_t id;
        Check(sd_id128_randomize(&id));
        Check(sd_bus_set_server(mServer.get(), 1, id));
        mClient = New(ends[1]);
        Check(sd_bus_start(mServer.get()));
        Check(sd_bus_start(mClient.get()));
    }

    sd_bus* Server() { return mServer.get(); }
    sd_bus* Client() { return mClient.get(); }

    /// Serves both until the predicate holds; false when it did not within the generous limit.
    bool Serve(const std::function<bool()>& predicate) {
        return WaitUntil([&] {
            while (sd_bus_process(mServer.get(), nullptr) > 0 || sd_bus_process(mClient.get(), nullptr) > 0) {
            }
            return predicate();
        });
    }

    /// Sends the call and returns its reply, a result or an error.
    Message Call(const Message& call) {
        Message reply;
        sd_bus_slot* slot = nullptr;
        Check(sd_bus_call_async(mClient.get(), &slot, call.get(), &Keep, &reply, 0));
        const mwl::Handle<sd_bus_slot, sd_bus_slot_unref> owner(slot);
        if (!Serve([&] { return reply != nullptr; })) {
            throw std::runtime_error("no reply");
        }
        Check(sd_bus_message_rewind(reply.get(), 1));
        return reply;
    }

    /// A new call without arguments yet.
    Message NewCall(const char* path, const char* interface, const char* member) {
        sd_bus_message* call = nullptr;
        Check(sd_bus_message_new_method_call(mClient.get(), &call, nullptr, path, interface, member));
        return Message(call);
    }

    /// The same with arguments as sd_bus_message_append(3) takes them.
    template <class... A>
    Message NewCall(const char* path, const char* interface, const char* member, const char* types,
                    A... argument) {
        Message call = NewCall(path, interface, member);
        Check(sd_bus_message_append(call.get(), types, argument...));
        return call;
    }

    static int Check(int result) {
        if (result < 0) {
            throw std::runtime_error("the wire failed with " + std::to_string(result));
        }
        return result;
    }

private:
    using Bus = mwl::Handle<sd_bus, sd_bus_close_unref>;

    static Bus New(int fd) {
        sd_bus* bus = nullptr;
        Check(sd_bus_new(&bus));
        Bus owner(bus);
        Check(sd_bus_set_fd(bus, fd, fd));
        Check(sd_bus_negotiate_creds(bus, 1, SD_BUS_CREDS_EUID));
        return owner;
    }

    static int Keep(sd_bus_message* message, void* reply, sd_bus_error*) {
        static_cast<Message*>(reply)->reset(sd_bus_message_ref(message));
        return 1;
    }

    Bus mServer;
    Bus mClient;
};

/// What a reply holds: the values of a result, or name and text of an error.
struct Answer {
    explicit Answer(Message reply) : message(std::move(reply)) {
        if (const sd_bus_error* const error = sd_bus_message_get_error(message.get())) {
            name = error->name;
            text = error->message != nullptr ? error->message : "";
        }
    }
    template <class T>
    T Get() {
        EXPECT_EQ(name, "") << text;
        T value{};
        mwl::Typed::Fault fault;
        EXPECT_GT(mwl::Typed::Codec<T>::Read(message.get(), value, fault), 0);
        return value;
    }
    std::string Signature() { return sd_bus_message_get_signature(message.get(), 1); }

    Message message;
    std::string name;
    std::string text;
};

}  // namespace tern::test
