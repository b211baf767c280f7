#include "client.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include "limits.h"
#include "running.h"

namespace tern::test {

namespace {

constexpr auto MOMENT_US = static_cast<std::uint64_t>(std::chrono::microseconds(MOMENT).count());

template <typename Value>
std::string ReadNumber(sd_bus_message* message, char type) {
    Value value{};
    sd_bus_message_read_basic(message, type, &value);
    return std::to_string(value);
}

std::string ReadValue(sd_bus_message* message, char type) {
    switch (type) {
        case 'y':
            return ReadNumber<std::uint8_t>(message, type);
        case 'n':
            return ReadNumber<std::int16_t>(message, type);
        case 'q':
            return ReadNumber<std::uint16_t>(message, type);
        case 'b':
        case 'i':
        case 'u':
            return ReadNumber<std::int32_t>(message, type);
        case 'x':
        case 't':
            return ReadNumber<std::int64_t>(message, type);
        case 'd':
            return ReadNumber<double>(message, type);
        case 'h': {
            int fd = -1;  // the message's
            sd_bus_message_read_basic(message, type, &fd);
            return "descriptor";
        }
        default: {
            const char* text = nullptr;
            sd_bus_message_read_basic(message, type, &text);
            return text == nullptr ? "" : text;
        }
    }
}

}  // namespace

Client::Client() {
    const Shortage::Aside aside;
    sd_bus_open_system(&mBus);
}

Client::~Client() {
    sd_bus_flush_close_unref(mBus);
}

std::string Describe(sd_bus_message* message) {
    std::string text;
    char type = 0;
    const char* contents = nullptr;
    while (sd_bus_message_peek_type(message, &type, &contents) > 0) {
        text += type;
        if (contents == nullptr) {
            text += "=" + ReadValue(message, type) + " ";
            continue;
        }
        const std::string inside = contents;
        sd_bus_message_enter_container(message, type, inside.c_str());
        text += "[" + inside + ": " + Describe(message) + "] ";
        sd_bus_message_exit_container(message);
    }
    return text;
}

Client::Message Caller::NewCall(const std::string& path, const char* interface, const char* member) {
    sd_bus_message* call = nullptr;
    if (sd_bus_message_new_method_call(Get(), &call, mService.c_str(), path.c_str(), interface, member) < 0) {
        throw std::logic_error("no call can be made");
    }
    return Client::Message(call);
}

Answer Caller::Send(sd_bus_message* call) {
    // Descriptors of a reply are taken into this process.
    const Shortage::Aside aside;
    sd_bus_error error{};
    sd_bus_message* reply = nullptr;
    const auto start = std::chrono::steady_clock::now();
    const int r = sd_bus_call(Get(), call, MOMENT_US, &error, &reply);
    // Where the service has left, the message bus answers for it, with the same error.
    const bool isAnswered = r != -ETIMEDOUT || std::chrono::steady_clock::now() - start < MOMENT;
    const Client::Message owner(reply);
    Answer answer;
    if (r >= 0) {
        answer.contents = Describe(reply);
    } else {
        answer.error = error.name == nullptr ? "no name" : error.name;
        answer.text = error.message == nullptr ? "" : error.message;
        const std::string member = sd_bus_message_get_member(call);
        mStage.Demand(isAnswered, member + " has an answer");
    }
    sd_bus_error_free(&error);
    return answer;
}

void Caller::Begin(const std::string& path, const char* interface, const char* member) {
    const Client::Message call = NewCall(path, interface, member);
    mStage.Expect(sd_bus_call_async(Get(), nullptr, call.get(), OnAnswer, this, 0) >= 0, "the call is sent");
    sd_bus_flush(Get());
}

Answer Caller::End() {
    const bool isAnswered = WaitUntil(
        [&] {
            while (sd_bus_process(Get(), nullptr) > 0) {
            }
            return mAnswer.has_value();
        },
        MOMENT);
    return mStage.Demand(isAnswered, "the open call has an answer") ? *mAnswer : Answer();
}

int Caller::OnAnswer(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    Answer answer;
    if (const sd_bus_error* const error = sd_bus_message_get_error(reply)) {
        answer.error = error->name;
        answer.text = error->message;
    } else {
        answer.contents = Describe(reply);
    }
    static_cast<Caller*>(userdata)->mAnswer = answer;
    return 1;
}

void Caller::Listen() {
    const std::string rule = "type='signal',sender='" + mService + "'";
    mStage.Expect(sd_bus_add_match(Get(), nullptr, rule.c_str(), OnSignal, this) >= 0, "it listens");
}

bool Caller::Hears(const std::string& member, const std::string& part) {
    return WaitUntil(
        [&] {
            while (sd_bus_process(Get(), nullptr) > 0) {
            }
            return std::any_of(mHeard.begin(), mHeard.end(), [&](const std::string& heard) {
                return heard.starts_with(member + " ") && heard.find(part) != std::string::npos;
            });
        },
        MOMENT);
}

int Caller::OnSignal(sd_bus_message* message, void* userdata, sd_bus_error*) {
    static_cast<Caller*>(userdata)->mHeard.push_back(std::string(sd_bus_message_get_member(message)) + " " +
                                                     Describe(message));
    return 0;
}

}  // namespace tern::test
