#include <tern/typed/subscription.h>

#include <tern/foundation/log.h>
#include <tern/typed/error.h>

#include <string>
#include <utility>

#include "foundation/error_text.h"
#include "platform/static_text.h"
#include "typed/bus_core.h"
#include "typed/contained.h"
#include "typed/name_owner.h"
#include "typed/reading.h"
#include "typed/reply_state.h"

namespace mwl::Typed {

using mw::tern::MakeStatusCodeFromReturnCode;

namespace {

const StaticText LOGGER("Typed");

}  // namespace

Detail::SignalHandler::~SignalHandler() = default;

struct Subscription::State final : Stoppable, std::enable_shared_from_this<State> {
    State(std::shared_ptr<ReplyState> replies, std::string kind, const char* types,
          std::unique_ptr<Detail::SignalHandler> values)
        : bus(std::move(replies)), what(std::move(kind)), signature(types), handler(std::move(values)) {}

    void Begin(const Remote& remote, const std::string& rule) {
        BusCore* const core = bus->core;
        if (core == nullptr || !core->IsOpen()) {
            status = StatusCode::NotInitialized;
            return;
        }
        if (!core->AddStoppable(*this)) {
            status = StatusCode::Stopping;
            return;
        }
        if (rule.empty()) {
            TERN_LOG_ERROR(LOGGER, "Refused to subscribe to %s: a name or path is none", what.c_str());
            status = StatusCode::InvalidArgument;
            return;
        }
        // sd-bus compares the sender with a unique name alone; for another one the owner has to be known. It
        // is asked for before, so that it is known when the first signal arrives.
        if (remote.GetDestination()[0] != ':') {
            owner = NameOwner::Of(bus, remote.GetDestination());
            if (owner->GetState() == NameOwner::State::Failed) {
                status = owner->GetStatus();
                return;
            }
        }
        sd_bus_slot* made = nullptr;
        const int r =
            sd_bus_add_match_async(core->GetBus(), &made, rule.c_str(), OnSignal, OnListening, this);
        slot.reset(made);
        if (r < 0) {
            TERN_LOG_ERROR(LOGGER, "Failed to subscribe to %s (%d, %s)", what.c_str(), r, ErrorText(-r));
            status = MakeStatusCodeFromReturnCode(r);
        }
    }
    void End() noexcept {
        AssertDBusThread(*bus);
        Leave();
        slot.reset();
        owner.reset();
        status = StatusCode::NotInitialized;
    }
    void OnStop() noexcept override {
        End();
        status = StatusCode::Stopping;
    }
    StatusCode GetStatus() const noexcept {
        return status == StatusCode::Ok && owner != nullptr && owner->GetState() == NameOwner::State::Failed
                   ? owner->GetStatus()
                   : status;
    }

    static int OnSignal(sd_bus_message* signal, void* userdata, sd_bus_error*) {
        auto& self = *static_cast<State*>(userdata);
        // Not called for what came before the message bus confirmed the match.
        if (sd_bus_message_is_signal(signal, nullptr, nullptr) > 0 && self.IsFromOwner(signal)) {
            const std::shared_ptr<State> kept = self.shared_from_this();
            RunContained([&] { kept->Handle(signal); }, signal);
        }
        return 0;
    }
    static int OnListening(sd_bus_message* reply, void* userdata, sd_bus_error*) {
        auto& self = *static_cast<State*>(userdata);
        if (sd_bus_message_is_method_error(reply, nullptr) <= 0) {
            self.status = StatusCode::Ok;
        } else if (sd_bus_is_open(sd_bus_message_get_bus(reply)) > 0) {
            const sd_bus_error* const error = sd_bus_message_get_error(reply);
            TERN_LOG_ERROR(LOGGER, "The bus refused the subscription to %s: %s, %s", self.what.c_str(),
                           error->name, error->message);
            RunContained([&] { self.status = Error::FromReply(reply).GetStatus(); }, reply);
            self.slot.reset();
        }
        return 0;
    }

    bool IsFromOwner(sd_bus_message* signal) const {
        if (owner == nullptr) {
            return true;
        }
        const char* const sender = sd_bus_message_get_sender(signal);
        return sender != nullptr && owner->GetOwner() == sender;
    }
    void Handle(sd_bus_message* signal) {
        if (signature != nullptr && sd_bus_message_has_signature(signal, signature) <= 0) {
            Drop(signal, 0);
        } else if (const int r = handler->Run(signal); r < 0) {
            Drop(signal, r);
        }
    }
    /// The content of the signal is not for the log.
    [[gnu::cold]] void Drop(sd_bus_message* signal, int error) {
        ++bus->watching.wrongSignals;
        unsigned long omitted = 0;
        if (!bus->watching.limit.Allows(omitted)) {
            return;
        }
        if (error == 0) {
            TERN_LOG_WARNING(LOGGER,
                             "Dropped a signal %s: '%s' where '%s' is wanted (%lu like it not logged)",
                             what.c_str(), sd_bus_message_get_signature(signal, 1), signature, omitted);
        } else if (StatusOfReading(error) == StatusCode::InvalidArgument) {
            TERN_LOG_WARNING(LOGGER,
                             "Dropped a signal %s: no value of the wanted type (%lu like it not logged)",
                             what.c_str(), omitted);
        } else {
            TERN_LOG_WARNING(LOGGER, "Dropped a signal %s (%d, %s) (%lu like it not logged)", what.c_str(),
                             error, ErrorText(-error), omitted);
        }
    }

    const std::shared_ptr<ReplyState> bus;
    /// For the log.
    const std::string what;
    const char* const signature;
    const std::unique_ptr<Detail::SignalHandler> handler;
    StatusCode status = StatusCode::Busy;
    std::shared_ptr<NameOwner> owner;
    BusSlot slot;
};

Subscription Subscribe(const Remote& remote, const char* interface, const char* member, const char* signature,
                       std::unique_ptr<Detail::SignalHandler> handler, const char* first) {
    AssertDBusThread(*remote.GetState());
    const std::string& sender = remote.GetDestination();
    const std::string& path = remote.GetPath();
    std::string rule;
    if (sd_bus_service_name_is_valid(sender.c_str()) > 0 && IsObjectPath(path) &&
        IsInterfaceName(interface) && IsMemberName(member)) {
        // Without the type, which sd-bus would look up with a hash for each message: OnSignal looks at it.
        rule.append("sender='").append(sender).append("',path='").append(path);
        rule.append("',interface='").append(interface).append("',member='").append(member).append("'");
        if (first != nullptr) {
            rule.append(",arg0='").append(first).append("'");
        }
    }
    std::string what;
    what.append(interface).append(".").append(member).append(" of ").append(sender).append(" ").append(path);
    Subscription made;
    made.mState = std::make_shared<Subscription::State>(remote.GetState(), std::move(what), signature,
                                                        std::move(handler));
    made.mState->Begin(remote, rule);
    return made;
}

Subscription::Subscription() noexcept = default;

Subscription::Subscription(Subscription&& other) noexcept = default;

Subscription& Subscription::operator=(Subscription&& other) noexcept {
    if (this != &other) {
        // The new one is in place when the old one goes, which may be what runs.
        const Subscription former(std::move(*this));
        mState = std::move(other.mState);
    }
    return *this;
}

Subscription::~Subscription() {
    Reset();
}

StatusCode Subscription::GetStatus() const noexcept {
    return mState != nullptr ? mState->GetStatus() : StatusCode::NotInitialized;
}

void Subscription::Reset() noexcept {
    if (const std::shared_ptr<State> state = std::move(mState)) {
        state->End();
    }
}

}  // namespace mwl::Typed
