#include <tern/typed/blocking_bus.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <new>
#include <optional>
#include <string_view>
#include <utility>

#include "foundation/error_text.h"
#include "typed/credentials.h"
#include "typed/handles.h"
#include "typed/sending.h"
#include "typed/time_limit.h"

namespace mwl::Typed {

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* BUS_NAME = "org.freedesktop.DBus";

/// A point of time, or none.
class Deadline {
public:
    explicit Deadline(milliseconds limit) {
        if (const std::uint64_t us = ToMicroseconds(limit); us != UINT64_MAX) {
            mEnd = steady_clock::now() + microseconds(us);
        }
    }

    /// As sd-bus takes it; 0 when it has passed.
    std::uint64_t GetLeft() const {
        if (!mEnd) {
            return UINT64_MAX;
        }
        const auto left = std::chrono::duration_cast<microseconds>(*mEnd - steady_clock::now()).count();
        return left > 0 ? static_cast<std::uint64_t>(left) : 0;
    }

private:
    std::optional<steady_clock::time_point> mEnd;
};

/// So many messages that are there already are still looked at when the time is over: what is waited for may
/// be behind them, and whoever sends without a pause does not keep us.
constexpr unsigned LATE_MESSAGES = 64;

/// Handles what comes until `isDone`, which is asked again after each message. 1: it is. 0: the time is over.
/// Otherwise the negative error number that the connection failed with.
template <typename Done>
int RunUntil(sd_bus* bus, const Deadline& deadline, Done isDone) {
    for (unsigned late = 0;;) {
        if (isDone()) {
            return 1;
        }
        int r = sd_bus_process(bus, nullptr);
        if (r == 0) {
            const std::uint64_t left = deadline.GetLeft();
            if (left == 0) {
                return 0;
            }
            r = sd_bus_wait(bus, left);
        } else if (r > 0 && deadline.GetLeft() == 0 && ++late > LATE_MESSAGES) {
            return isDone() ? 1 : 0;
        }
        if (r < 0 && r != -EINTR) {
            return isDone() ? 1 : r;
        }
    }
}

/// One question to the bus itself, without waiting.
int Send(sd_bus* bus, BusSlot& slot, const char* member, sd_bus_message_handler_t handler, void* userdata,
         const char* argument) {
    sd_bus_slot* made = nullptr;
    const int r = sd_bus_call_method_async(bus, &made, BUS_NAME, "/org/freedesktop/DBus", BUS_NAME, member,
                                           handler, userdata, "s", argument);
    slot.reset(made);
    return r;
}

}  // namespace

struct BlockingBus::State {
    Which which = Which::System;
    /// Of a third bus.
    std::optional<std::string> address;
    /// Of another machine's system bus.
    std::optional<std::string> host;
    Handle<sd_bus, sd_bus_close_unref> bus;

    std::string Describe() const {
        return host                     ? "the system bus of '" + *host + "'"
               : address                ? "the message bus at '" + *address + "'"
               : which == Which::System ? "the system bus"
                                        : "the user's bus";
    }

    int Open() {
        sd_bus* made = nullptr;
        int r = 0;
        if (host) {
            r = sd_bus_open_system_remote(&made, host->c_str());
            bus.reset(made);
        } else if (address) {
            r = sd_bus_new(&made);
            bus.reset(made);
            r = r < 0 ? r : sd_bus_set_address(made, address->c_str());
            r = r < 0 ? r : sd_bus_set_bus_client(made, 1);
            r = r < 0 ? r : sd_bus_start(made);
        } else {
            r = which == Which::System ? sd_bus_open_system(&made) : sd_bus_open_user(&made);
            bus.reset(made);
        }
        return r;
    }

    Error Explain(int error) const {
        switch (-error) {
            case EACCES:
            case EPERM:
                return Error::AccessDenied(Describe() + " refuses this process: " + ErrorText(-error));
            case ENOMEM:
                throw std::bad_alloc();
            case EINVAL:
                if (host) {
                    return Error::InvalidArgs("'" + *host + "' is no host, HOST or USER@HOST");
                }
                if (address) {
                    return Error::InvalidArgs("'" + *address + "' is no address of a message bus");
                }
                break;
            default:
                break;
        }
        std::string text = "there is no connection to " + Describe() + ": " + ErrorText(-error);
        text += host                     ? "; does ssh reach it, is systemd-stdio-bridge there?"
                : address                ? "; is it running, is the address right?"
                : which == Which::System ? "; is dbus running, is DBUS_SYSTEM_BUS_ADDRESS right?"
                                         : "; has this user a session, is DBUS_SESSION_BUS_ADDRESS right?";
        return {SD_BUS_ERROR_NO_SERVER, text};
    }

    Outcome<void> Connect(const Deadline& deadline) {
        if (Credentials::Of(nullptr) != nullptr) {
            return Error(StatusCode::Deadlock, "a call that blocks, on the D-Bus thread");
        }
        if (bus != nullptr && sd_bus_is_open(bus.get()) > 0) {
            return {};
        }
        int r = Open();
        if (r >= 0) {
            r = RunUntil(bus.get(), deadline, [this] { return sd_bus_is_ready(bus.get()) > 0; });
        }
        if (r > 0) {
            return {};
        }
        bus.reset();
        return r < 0 ? Explain(r) : Error::Timeout(Describe() + " lets connect, but does not answer");
    }
};

BlockingBus::BlockingBus(Which which) : mState(std::make_unique<State>()) {
    mState->which = which;
}

BlockingBus::BlockingBus(std::string address) : mState(std::make_unique<State>()) {
    mState->address = std::move(address);
}

std::shared_ptr<BlockingBus> BlockingBus::OnHost(std::string host) {
    auto bus = std::make_shared<BlockingBus>();
    bus->mState->host = std::move(host);
    return bus;
}

BlockingBus::~BlockingBus() = default;

Outcome<void> BlockingBus::Connect(milliseconds limit) {
    return mState->Connect(Deadline(limit));
}

sd_bus* BlockingBus::GetBus() const noexcept {
    return mState->bus.get();
}

Outcome<Detail::OwnedMessage> BlockingBus::Ask(const Detail::BlockingRequest& request,
                                               const Detail::ArgumentsWriter& write) {
    const Deadline deadline(request.limit);
    if (const Outcome<void> connected = mState->Connect(deadline); !connected.IsOk()) {
        return connected.GetError();
    }
    // Kept, whatever happens to the connection meanwhile.
    const Handle<sd_bus, sd_bus_unref> bus(sd_bus_ref(mState->bus.get()));
    sd_bus_message* made = nullptr;
    int r = sd_bus_message_new_method_call(bus.get(), &made, request.destination, request.path,
                                           request.interface, request.member);
    Detail::OwnedMessage call(made);
    if (r < 0) {
        return ErrorOfMessage(r, request.destination, request.path, request.interface, request.member);
    }
    if (request.isSensitive) {
        r = sd_bus_message_sensitive(call.get());
    }
    unsigned index = 0;
    if (r = r < 0 ? r : write(call.get(), index); r < 0) {
        return ErrorOfArgument(r, request.names != nullptr ? request.names[index] : nullptr, index, Fault());
    }
    if (!request.isAnswered) {
        r = sd_bus_message_set_expect_reply(call.get(), 0);
        r = r < 0 ? r : sd_bus_send(bus.get(), call.get(), nullptr);
        if (r >= 0) {
            r = RunUntil(bus.get(), deadline, [&bus] {
                std::uint64_t waiting = 0;
                return sd_bus_get_n_queued_write(bus.get(), &waiting) < 0 || waiting == 0;
            });
        }
        if (r > 0) {
            return Detail::OwnedMessage();
        }
        return r < 0 ? ErrorOfSending(r) : Error::Timeout("the message bus does not take the call");
    }
    Detail::OwnedMessage reply;
    sd_bus_slot* slot = nullptr;
    r = sd_bus_call_async(
        bus.get(), &slot, call.get(),
        [](sd_bus_message* message, void* userdata, sd_bus_error*) {
            static_cast<Detail::OwnedMessage*>(userdata)->reset(sd_bus_message_ref(message));
            return 1;
        },
        &reply, std::max<std::uint64_t>(deadline.GetLeft(), 1));
    const BusSlot waiting(slot);
    call.reset();
    if (r < 0) {
        return ErrorOfSending(r);
    }
    // sd-bus itself ends it in time.
    r = RunUntil(bus.get(), Deadline(Remote::NO_LIMIT), [&reply] { return reply != nullptr; });
    if (r < 0) {
        return Error(StatusOfSending(r), std::string("the reply cannot be waited for: ") + ErrorText(-r));
    }
    return reply;
}

namespace Detail {

/// Where sd-bus leaves what it hands over; does not move.
struct ListeningBase::State {
    static constexpr std::size_t LIMIT = Listening<>::LIMIT;

    std::shared_ptr<BlockingBus> owner;
    std::string destination;
    /// Why it does not listen; it has ended then.
    std::optional<Error> failure;
    /// That of the matches, which are gone when the owner has another one.
    Handle<sd_bus, sd_bus_unref> bus;
    /// Whose signals count; empty while nobody owns the name.
    std::string sender;
    std::deque<OwnedMessage> signals;
    bool areLost = false;
    /// Answers that have not come.
    unsigned missing = 0;
    /// The first of them that is an error.
    OwnedMessage refusal;
    BusSlot ownerMatch;
    BusSlot ownerQuestion;
    BusSlot signalMatch;

    bool IsUnique() const { return destination.starts_with(':'); }

    /// The bus need not send anything any more, and nothing is kept.
    void End(Error why) {
        failure = std::move(why);
        ownerMatch.reset();
        ownerQuestion.reset();
        signalMatch.reset();
        signals.clear();
        bus.reset();
    }

    /// Called by sd-bus: no exception crosses it. A signal that could not be kept is lost.
    template <typename Work>
    static int Guard(void* userdata, Work work) noexcept {
        State& state = *static_cast<State*>(userdata);
        try {
            work(state);
        } catch (...) {
            state.areLost = true;
        }
        return 0;
    }
    static int OnMatch(sd_bus_message* reply, void* userdata, sd_bus_error*) {
        State& state = *static_cast<State*>(userdata);
        --state.missing;
        if (sd_bus_message_is_method_error(reply, nullptr) > 0 && state.refusal == nullptr) {
            state.refusal.reset(sd_bus_message_ref(reply));
        }
        return 0;
    }
    static int OnOwner(sd_bus_message* reply, void* userdata, sd_bus_error*) {
        return Guard(userdata, [reply](State& state) {
            --state.missing;
            const char* name = nullptr;
            // An error says that there is none, which is none here.
            if (sd_bus_message_is_method_error(reply, nullptr) <= 0 &&
                sd_bus_message_read_basic(reply, 's', &name) > 0) {
                state.sender = name;
            }
        });
    }
    static int OnOwnerChanged(sd_bus_message* signal, void* userdata, sd_bus_error*) {
        return Guard(userdata, [signal](State& state) {
            const char* name = nullptr;
            const char* former = nullptr;
            const char* next = nullptr;
            // sd-bus takes any sender for a well-known one, and anybody can send us this.
            const char* const from = sd_bus_message_get_sender(signal);
            if (from == nullptr || std::string_view(from) != BUS_NAME) {
                return;
            }
            if (sd_bus_message_read(signal, "sss", &name, &former, &next) > 0 && state.destination == name) {
                state.sender = next;
            }
        });
    }
    static int OnSignal(sd_bus_message* signal, void* userdata, sd_bus_error*) {
        return Guard(userdata, [signal](State& state) {
            const char* const from = sd_bus_message_get_sender(signal);
            if (from == nullptr || state.sender != from) {
                return;
            }
            if (state.signals.size() >= LIMIT) {
                state.areLost = true;
                return;
            }
            state.signals.emplace_back(sd_bus_message_ref(signal));
        });
    }

    int Begin(const char* path, const char* interface, const char* member) {
        sd_bus_slot* made = nullptr;
        int r = 0;
        if (IsUnique()) {
            sender = destination;
        } else {
            // First the watch for changes, then the question.
            const std::string rule =
                "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
                "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
                destination + "'";
            r = sd_bus_add_match_async(bus.get(), &made, rule.c_str(), OnOwnerChanged, OnMatch, this);
            ownerMatch.reset(made);
            r = r < 0 ? r
                      : Send(bus.get(), ownerQuestion, "GetNameOwner", OnOwner, this, destination.c_str());
            missing = 2;
        }
        if (r >= 0) {
            r = sd_bus_match_signal_async(bus.get(), &made, destination.c_str(), path, interface, member,
                                          OnSignal, OnMatch, this);
            signalMatch.reset(r < 0 ? nullptr : made);
            ++missing;
        }
        return r;
    }
};

ListeningBase::ListeningBase(std::shared_ptr<BlockingBus> bus, std::string destination,
                             const std::string& path, const char* interface, const char* member,
                             milliseconds limit)
    : mState(std::make_unique<State>()) {
    State& state = *mState;
    state.owner = std::move(bus);
    state.destination = std::move(destination);
    const Deadline deadline(limit);
    BlockingBus::State& connection = *state.owner->mState;
    if (const Outcome<void> connected = connection.Connect(deadline); !connected.IsOk()) {
        state.failure = connected.GetError();
        return;
    }
    if (const std::optional<Error> wrong =
            FindWrongName(state.destination.c_str(), path.c_str(), interface, member)) {
        state.failure = *wrong;
        return;
    }
    state.bus.reset(sd_bus_ref(connection.bus.get()));
    int r = state.Begin(path.c_str(), interface, member);
    if (r >= 0) {
        r = RunUntil(state.bus.get(), deadline, [&state] { return state.missing == 0; });
    }
    if (r < 0) {
        state.End(ErrorOfSending(r));
    } else if (r == 0) {
        state.End(Error::Timeout("the message bus does not answer"));
    } else if (state.refusal != nullptr) {
        state.End(Error::FromReply(state.refusal.get()));
    }
}

ListeningBase::ListeningBase(ListeningBase&& other) noexcept = default;
ListeningBase& ListeningBase::operator=(ListeningBase&& other) noexcept = default;
ListeningBase::~ListeningBase() = default;

Outcome<void> ListeningBase::GetState() const {
    if (mState == nullptr) {
        return StatusCode::NotInitialized;
    }
    if (mState->failure) {
        return *mState->failure;
    }
    return {};
}

Outcome<OwnedMessage> ListeningBase::Take(milliseconds limit) {
    if (const Outcome<void> state = GetState(); !state.IsOk()) {
        return state.GetError();
    }
    State& state = *mState;
    if (Credentials::Of(nullptr) != nullptr) {
        return Error(StatusCode::Deadlock, "waiting for a signal on the D-Bus thread");
    }
    const auto hasSome = [&state] { return !state.signals.empty() || state.areLost; };
    const int r = hasSome() ? 1 : RunUntil(state.bus.get(), Deadline(limit), hasSome);
    if (!state.signals.empty()) {
        OwnedMessage first = std::move(state.signals.front());
        state.signals.pop_front();
        return first;
    }
    if (std::exchange(state.areLost, false)) {
        return Error::LimitsExceeded("signals were lost, as too many waited");
    }
    if (r == 0) {
        return Error::Timeout("no signal in time");
    }
    state.End(Error(StatusCode::IoError, "the connection to the message bus was lost"));
    return *state.failure;
}

}  // namespace Detail

}  // namespace mwl::Typed
