#pragma once

#include <systemd/sd-bus.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "foundation/handle.h"
#include "stage.h"

namespace tern::test {

/// A client's connection, closed at the end. Its own calls never fail: they are not the library's, and it
/// takes nothing of what is short.
class Client {
public:
    using Message = mwl::Handle<sd_bus_message, sd_bus_message_unref>;

    Client();
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    sd_bus* Get() { return mBus; }

private:
    sd_bus* mBus = nullptr;
};

/// What a message holds from where it is read, as text: each value with its type, containers in brackets. Two
/// messages that hold the same give the same.
std::string Describe(sd_bus_message* message);

/// How a call ended.
struct Answer {
    std::string error;     ///< its name; empty for a result
    std::string text;      ///< of the error
    std::string contents;  ///< of the result, see Describe

    bool IsError() const { return !error.empty(); }
};

/// Calls members of one object of a service, and listens.
class Caller {
public:
    /// Nothing is sent yet.
    Caller(Stage& stage, std::string service) : mStage(stage), mService(std::move(service)) {}

    /// Waits for the answer. A call that has none within a moment is what must never be: it is told to the
    /// stage. An error counts as told to the caller.
    template <typename... Argument>
    Answer Call(const std::string& path, const char* interface, const char* member, const char* types = "",
                Argument... argument) {
        const Answer answer = Try(path, interface, member, types, argument...);
        if (answer.IsError()) {
            static_cast<void>(mStage.Accept(1, member + (": " + answer.error)));
        }
        return answer;
    }
    /// The same where an error is what is to come, and is told to nobody.
    template <typename... Argument>
    Answer Try(const std::string& path, const char* interface, const char* member, const char* types,
               Argument... argument) {
        Client::Message call = NewCall(path, interface, member);
        if (*types != '\0') {
            mStage.Expect(sd_bus_message_append(call.get(), types, argument...) >= 0, "the call is made");
        }
        return Send(call.get());
    }
    /// The same for a method that gives back what it got: false when it gives back something else.
    template <typename... Argument>
    bool Echo(const std::string& path, const char* interface, const char* member, const char* types,
              Argument... argument) {
        Client::Message call = NewCall(path, interface, member);
        mStage.Expect(sd_bus_message_append(call.get(), types, argument...) >= 0, "the call is made");
        const Answer answer = Send(call.get());
        if (answer.IsError()) {
            static_cast<void>(mStage.Accept(1, member + (": " + answer.error)));
        }
        sd_bus_message_rewind(call.get(), 1);
        return !answer.IsError() && answer.contents == Describe(call.get());
    }
    /// Calls without waiting; one at a time. The answer is what End gives, which waits for it as Call does.
    void Begin(const std::string& path, const char* interface, const char* member);
    Answer End();

    /// From now on signals of the service are taken.
    void Listen();
    /// Waits until a signal of this member, whose contents hold `part`, has come; false when none does.
    bool Hears(const std::string& member, const std::string& part);

    const std::string& Service() const { return mService; }

private:
    sd_bus* Get() { return mClient.Get(); }
    Client::Message NewCall(const std::string& path, const char* interface, const char* member);
    Answer Send(sd_bus_message* call);
    static int OnSignal(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int OnAnswer(sd_bus_message* reply, void* userdata, sd_bus_error* error);

    Stage& mStage;
    const std::string mService;
    Client mClient;
    std::vector<std::string> mHeard;
    std::optional<Answer> mAnswer;
};

}  // namespace tern::test
