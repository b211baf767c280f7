#pragma once

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <cstdint>
#include <string>

#include "support/wait_until.h"
#include "typed/served_bus.h"

namespace tern::test {

/// A peer of the service under test, by sd-bus alone, that the test leads step by step: nothing is answered
/// before the test says so. One thread.
class RawPeer : public Peer {
public:
    /// Takes the name, also from another that let it.
    void Own(const char* name) {
        Check(sd_bus_request_name(Get(), name, SD_BUS_NAME_ALLOW_REPLACEMENT | SD_BUS_NAME_REPLACE_EXISTING));
    }
    void Disown(const char* name) { Check(sd_bus_release_name(Get(), name)); }

    /// Sends a signal to all that listen.
    template <typename... Value>
    void Emit(const char* path, const char* interface, const char* member, const char* types = "",
              Value... value) {
        const Ordered ordered;
        Check(sd_bus_emit_signal(Get(), path, interface, member, types, value...));
        Check(sd_bus_flush(Get()));
    }
    /// Sends a signal to one connection, whether it listens or not.
    template <typename... Value>
    void EmitTo(const char* destination, const char* path, const char* interface, const char* member,
                const char* types = "", Value... value) {
        const Ordered ordered;
        sd_bus_message* made = nullptr;
        Check(sd_bus_message_new_signal(Get(), &made, path, interface, member));
        const Message signal(made);
        Check(sd_bus_message_append(made, types, value...));
        Check(sd_bus_send_to(Get(), made, destination, nullptr));
        Check(sd_bus_flush(Get()));
    }

    /// Waits for the next call of the member; other messages are dropped.
    Message WaitForCall(const std::string& member) {
        Message call;
        EXPECT_TRUE(WaitUntil([&] {
            while (call == nullptr) {
                Message message = Take();
                if (message == nullptr) {
                    return false;
                }
                std::uint8_t type = 0;
                Check(sd_bus_message_get_type(message.get(), &type));
                if (type == SD_BUS_MESSAGE_METHOD_CALL &&
                    member == sd_bus_message_get_member(message.get())) {
                    call = std::move(message);
                }
            }
            return true;
        })) << member;
        return call;
    }
    /// Whether no call of the member has come, up to now. Others are dropped.
    bool HasNoCall(const std::string& member) {
        Ping();
        for (Message message = Take(); message != nullptr; message = Take()) {
            const char* const called = sd_bus_message_get_member(message.get());
            if (called != nullptr && member == called) {
                return false;
            }
        }
        return true;
    }
    template <typename... Value>
    void Reply(const Message& call, const char* types = "", Value... value) {
        const Ordered ordered;
        Check(sd_bus_reply_method_return(call.get(), types, value...));
        Check(sd_bus_flush(Get()));
    }
    void Refuse(const Message& call, const char* name, const char* text = "no") {
        const Ordered ordered;
        Check(sd_bus_reply_method_errorf(call.get(), name, "%s", text));
        Check(sd_bus_flush(Get()));
    }

private:
    /// The next message that is for nobody in this process; null when there is none.
    Message Take() {
        for (;;) {
            sd_bus_message* message = nullptr;
            const int r = sd_bus_process(Get(), &message);
            Check(r);
            Ordered::Order();
            if (message != nullptr || r == 0) {
                return Message(message);
            }
        }
    }
};

}  // namespace tern::test
