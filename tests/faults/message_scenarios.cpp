#include <systemd/sd-bus.h>
#include <tern/dbus_message/aoasv_signature_parser.h>
#include <tern/dbus_message/asasv_signature_parser.h>
#include <tern/dbus_message/asv_signature_parser.h>
#include <tern/dbus_message/sasvas_signature_parser.h>
#include <tern/dbus_message/vasv_signature_parser.h>

#include <cstdarg>
#include <string>

#include "scenarios.h"

namespace tern::test {

namespace {

using namespace mw::tern::DBusMessage;

/// A message as a reader gets it.
class ReceivedMessage {
public:
    explicit ReceivedMessage(const char* types, ...) {
        va_list content;
        va_start(content, types);
        sd_bus_open_system(&mBus);
        mIsWhole = sd_bus_message_new_signal(mBus, &mMessage, "/o", "com.example.I", "S") >= 0 &&
                   sd_bus_message_appendv(mMessage, types, content) >= 0 &&
                   sd_bus_message_seal(mMessage, 1, 0) >= 0 && sd_bus_message_rewind(mMessage, 1) >= 0;
        va_end(content);
    }
    ~ReceivedMessage() {
        sd_bus_message_unref(mMessage);
        sd_bus_flush_close_unref(mBus);
    }
    ReceivedMessage(const ReceivedMessage&) = delete;
    ReceivedMessage& operator=(const ReceivedMessage&) = delete;

    sd_bus_message* Get() { return mMessage; }
    bool IsWhole() const { return mIsWhole; }

private:
    sd_bus* mBus = nullptr;
    sd_bus_message* mMessage = nullptr;
    bool mIsWhole = false;
};

/// The readers give sd-bus's own numbers.
bool AcceptResult(Stage& stage, int r) {
    return stage.Accept(r < 0 ? static_cast<unsigned>(-r) : 0, "ParseMessage");
}

void RunDictionary(Stage& stage) {
    ReceivedMessage message("a{sv}", 14, "s", "s", "text", "b", "b", 1, "n", "n", -1, "q", "q", 1, "i", "i",
                            -1, "u", "u", 1U, "x", "x", INT64_C(-1), "t", "t", UINT64_C(1), "d", "d", 0.5,
                            "y", "y", 7, "as", "as", 2, "one", "two", "isi", "(isi)", 1, "two", 3, "nested",
                            "a{sv}", 1, "inner", "u", 5U, "dictionaries", "aa{sv}", 1, 1, "deep", "s", "end");
    if (!stage.Expect(message.IsWhole(), "the message is made")) {
        return;
    }
    stage.Sweep([&] {
        ASVsignatureParser parser(message.Get());
        if (AcceptResult(stage, parser.ParseMessage())) {
            stage.Expect(parser.GetValuesList().Size() >= 12, "every value is stored");
        }
    });
}

void RunVariant(Stage& stage) {
    ReceivedMessage message("v", "a{sv}", 2, "one", "u", 1U, "two", "s", "text");
    stage.Expect(message.IsWhole(), "the message is made");
    stage.Sweep([&] {
        VASVsignatureParser parser(message.Get());
        if (AcceptResult(stage, parser.ParseMessage())) {
            stage.Expect(parser.GetValuesList().Size() == 2, "every value is stored");
        }
    });
}

void RunNamedDictionary(Stage& stage) {
    ReceivedMessage message("sa{sv}as", "name", 2, "one", "u", 1U, "two", "s", "text", 2, "a", "b");
    stage.Expect(message.IsWhole(), "the message is made");
    stage.Sweep([&] {
        SASVASsignatureParser parser(message.Get());
        if (AcceptResult(stage, parser.ParseMessage())) {
            stage.Expect(parser.GetName() == "name" && parser.GetValuesList().Size() == 2 &&
                             parser.GetStrings().empty(),
                         "every part is stored but the strings, which are never read");
        }
    });
}

template <typename Base>
class Counting : public Base {
public:
    using Base::Base;
    void OnEntry(const std::string& /*name*/, const ValuesList& values) override {
        ++mEntries;
        mValues += values.Size();
    }
    bool HasCounted(unsigned entries, std::size_t values) const {
        return mEntries == entries && mValues == values;
    }

private:
    unsigned mEntries = 0;
    std::size_t mValues = 0;
};

template <typename Parser>
void RunStructures(Stage& stage, const char* types, const char* first, const char* second) {
    ReceivedMessage message(types, 2, first, 2, "one", "u", 1U, "two", "s", "text", second, 1, "three", "y",
                            3);
    stage.Expect(message.IsWhole(), "the message is made");
    stage.Sweep([&] {
        Counting<Parser> parser(message.Get());
        if (AcceptResult(stage, parser.ParseMessage())) {
            stage.Expect(parser.HasCounted(2, 3), "every entry is told of");
        }
    });
}

void RunObjects(Stage& stage) {
    RunStructures<AOASVsignatureParser>(stage, "a(oa{sv})", "/first", "/second");
}

void RunStrings(Stage& stage) {
    RunStructures<ASASVsignatureParser>(stage, "a(sa{sv})", "first", "second");
}

}  // namespace

std::vector<Scenario> MessageScenarios() {
    return {{"message-dictionary", RunDictionary},
            {"message-variant", RunVariant},
            {"message-named-dictionary", RunNamedDictionary},
            {"message-objects", RunObjects},
            {"message-strings", RunStrings}};
}

}  // namespace tern::test
