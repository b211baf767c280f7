#include "typed/departures.h"

#include <tern/foundation/log.h>

#include <cstring>
#include <ctime>
#include <utility>

#include "foundation/error_text.h"
#include "platform/static_text.h"
#include "typed/contained.h"

namespace mwl::Typed {

namespace {

const StaticText LOGGER("Typed");

constexpr const char* BUS_NAME = "org.freedesktop.DBus";
constexpr const char* BUS_PATH = "/org/freedesktop/DBus";
/// A name that has no owner any more.
constexpr const char* RULE =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
    "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg2=''";
/// Calls often come in rows; each installation costs the bus two messages. Microseconds.
constexpr std::uint64_t LINGER = 5000000;

}  // namespace

/// "Is it still there?", to the bus.
struct Departures::Question {
    Departures* owner = nullptr;
    std::string name;
    BusSlot slot;
};

Departures::Departures(sd_bus* bus, sd_event* loop, Listener listener, Names names)
    : mBus(bus), mLoop(loop), mListener(std::move(listener)), mNames(std::move(names)) {}

Departures::~Departures() = default;

void Departures::Need() noexcept {
    if (std::exchange(mIsLingering, false)) {
        static_cast<void>(sd_event_source_set_enabled(mLinger.get(), SD_EVENT_OFF));  // of a valid source
    }
    if (mMatch != nullptr) {
        return;
    }
    sd_bus_slot* slot = nullptr;
    const int r = sd_bus_add_match_async(mBus, &slot, RULE, OnLeft, OnListening, this);
    if (r < 0) {
        // Tried again with each call.
        unsigned long omitted = 0;
        if (mLimit.Allows(omitted)) {
            TERN_LOG_ERROR(LOGGER, "Failed to watch for callers that leave (%d, %s) (%lu like it not logged)",
                           r, ErrorText(-r), omitted);
        }
        return;
    }
    mMatch.reset(slot);
}

void Departures::Release() noexcept {
    if (mMatch == nullptr || mIsLingering) {
        return;
    }
    int r = 0;
    if (mLinger == nullptr) {
        sd_event_source* timer = nullptr;
        r = sd_event_add_time_relative(mLoop, &timer, CLOCK_MONOTONIC, LINGER, 0, OnLinger, this);
        mLinger.reset(timer);
    } else {
        r = sd_event_source_set_time_relative(mLinger.get(), LINGER);
        r = r < 0 ? r : sd_event_source_set_enabled(mLinger.get(), SD_EVENT_ONESHOT);
    }
    if (r < 0) {
        mMatch.reset();  // as good, except for the cost of the next one
    } else {
        mIsLingering = true;
    }
}

int Departures::OnLinger(sd_event_source*, uint64_t, void* userdata) {
    auto& self = *static_cast<Departures*>(userdata);
    self.mIsLingering = false;
    self.mMatch.reset();
    return 0;
}

int Departures::OnLeft(sd_bus_message* message, void* userdata, sd_bus_error*) {
    // sd-bus lets a signal of any sender pass a rule for the message bus's.
    const char* const sender = sd_bus_message_get_sender(message);
    const char* name = nullptr;
    if (sender != nullptr && std::strcmp(sender, BUS_NAME) == 0 &&
        sd_bus_message_read_basic(message, 's', &name) > 0 && name[0] == ':') {
        RunContained([&] { static_cast<Departures*>(userdata)->mListener(name); }, message);
    }
    return 0;
}

int Departures::OnListening(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    if (sd_bus_message_is_method_error(reply, nullptr) > 0) {
        const sd_bus_error* const error = sd_bus_message_get_error(reply);
        TERN_LOG_ERROR(LOGGER, "The bus refused to tell of callers that leave: %s, %s", error->name,
                       error->message);
        return 0;
    }
    RunContained([&] { static_cast<Departures*>(userdata)->AskForEach(); }, reply);
    return 0;
}

/// Connections that left before the bus began to report are not reported any more.
void Departures::AskForEach() {
    for (const std::string& name : mNames()) {
        Question& question = mQuestions.emplace_back();
        question.owner = this;
        question.name = name;
        sd_bus_slot* slot = nullptr;
        const int r = sd_bus_call_method_async(mBus, &slot, BUS_NAME, BUS_PATH, BUS_NAME, "NameHasOwner",
                                               OnOwner, &question, "s", name.c_str());
        question.slot.reset(slot);
        if (r < 0) {
            mQuestions.pop_back();
        }
    }
}

int Departures::OnOwner(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    Departures& self = *static_cast<Question*>(userdata)->owner;
    // Taken out first: it lives until the end of this function.
    std::list<Question> asked;
    for (auto question = self.mQuestions.begin(); question != self.mQuestions.end(); ++question) {
        if (&*question == userdata) {
            asked.splice(asked.end(), self.mQuestions, question);
            break;
        }
    }
    int isThere = 1;
    if (sd_bus_message_is_method_error(reply, nullptr) == 0 &&
        sd_bus_message_read_basic(reply, 'b', &isThere) > 0 && isThere == 0) {
        RunContained([&] { self.mListener(asked.front().name.c_str()); }, reply);
    }
    return 0;
}

}  // namespace mwl::Typed
