#include <tern/typed/property_cache.h>

#include <tern/foundation/log.h>
#include <tern/typed/error.h>
#include <tern/typed/subscription.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "foundation/error_text.h"
#include "platform/static_text.h"
#include "typed/bus_core.h"
#include "typed/contained.h"
#include "typed/name_owner.h"
#include "typed/reply_state.h"
#include "typed/retry.h"
#include "typed/time_limit.h"

namespace mwl::Typed::Detail {

using mw::tern::MakeStatusCodeFromReturnCode;

namespace {

const StaticText LOGGER("Typed");

constexpr const char* PROPERTIES = "org.freedesktop.DBus.Properties";
constexpr const char* ENTRY = "{sv}";

constexpr std::uint64_t Bit(std::size_t place) {
    return std::uint64_t{1} << place;
}

}  // namespace

struct CachedProperties::State final : Stoppable,
                                       NameOwner::Listener,
                                       std::enable_shared_from_this<CachedProperties::State> {
    /// "What is its value?", to the peer.
    struct Question {
        State* cache = nullptr;
        std::size_t place = 0;
        BusSlot slot;
        /// It has changed since it was asked for.
        bool isOld = false;
    };
    /// The signal PropertiesChanged.
    class Announced final : public SignalHandler {
    public:
        explicit Announced(State& cache) : mCache(cache) {}
        int Run(sd_bus_message* signal) override {
            const std::shared_ptr<State> kept = mCache.shared_from_this();
            return kept->OnAnnounced(signal);
        }

    private:
        State& mCache;
    };

    enum class Phase {
        Listening,  ///< or about to begin
        Deaf,       ///< changes are not reported, so that nothing is kept; `status` says why
        Ended,
    };

    State(const std::shared_ptr<Remote>& object, const char* name, const CachedProperty* properties,
          std::size_t number, std::shared_ptr<void> store)
        : remote(object),
          interface(name),
          table(properties),
          count(number),
          values(std::move(store)),
          questions(number) {
        for (std::size_t place = 0; place < count; ++place) {
            questions[place].cache = this;
            questions[place].place = place;
        }
    }

    ReplyState& Bus() const noexcept { return *remote->GetState(); }
    sd_bus* GetBus() const noexcept { return Bus().core->GetBus(); }

    void Begin() {
        BusCore* const core = Bus().core;
        if (core == nullptr || !core->IsOpen()) {
            status = StatusCode::NotInitialized;
            return;
        }
        if (!core->AddStoppable(*this)) {
            status = StatusCode::Stopping;
            return;
        }
        // Before anything is asked for, so that no change is missed.
        announced = Subscribe(*remote, PROPERTIES, "PropertiesChanged", "sa{sv}as",
                              std::make_unique<Announced>(*this), interface);
        if (announced.GetStatus() != StatusCode::Busy) {
            status = announced.GetStatus();
            phase = Phase::Deaf;
            return;
        }
        owner = NameOwner::Of(remote->GetState(), remote->GetDestination());
        id = owner->Add(weak_from_this());
        if (owner->GetState() != NameOwner::State::Asking) {
            OnOwner();
        }
    }
    void End() noexcept {
        AssertDBusThread(Bus());
        OnStop();
        onChange.reset();
    }
    void OnStop() noexcept override {
        Leave();
        announced.Reset();
        if (owner != nullptr) {
            owner->Remove(id);
        }
        static_cast<void>(Empty());
        status = StatusCode::Stopping;
        phase = Phase::Ended;
    }

    /// Nothing is known, and nothing asked. Returns what was known.
    std::uint64_t Empty() noexcept {
        allQuestion.reset();
        retry.Reset();
        hasLogged = false;
        std::uint64_t gone = 0;
        for (std::size_t place = 0; place < count; ++place) {
            questions[place].slot.reset();
            gone |= table[place].clear(values.get()) ? Bit(place) : 0;
        }
        return gone;
    }

    void OnOwner() override {
        if (phase == Phase::Deaf) {
            return;
        }
        const StatusCode before = status;
        const std::uint64_t gone = Empty();
        if (owner->GetState() == NameOwner::State::Failed) {
            status = owner->GetStatus();
        } else if (owner->GetOwner().empty()) {
            status = StatusCode::NotFound;
        } else {
            status = StatusCode::Busy;
            AskForAll();
        }
        Tell(gone, before);
    }

    /// `gone` and all else that has changed; the handler may destroy the cache.
    void Tell(std::uint64_t changed, StatusCode before) {
        if ((changed != 0 || status != before) && onChange != nullptr) {
            const std::shared_ptr<OnChange> kept = onChange;
            (*kept)(changed);
        }
    }

    /// A call of the owner as it is now: what a former one answers is answered to nobody.
    int Ask(BusSlot& slot, const char* member, const char* property, sd_bus_message_handler_t handler,
            void* userdata) {
        sd_bus_message* made = nullptr;
        int r = sd_bus_message_new_method_call(GetBus(), &made, owner->GetOwner().c_str(),
                                               remote->GetPath().c_str(), PROPERTIES, member);
        const BusMessage call(made);
        if (r >= 0) {
            r = sd_bus_message_append_basic(made, 's', interface);
        }
        if (r >= 0 && property != nullptr) {
            r = sd_bus_message_append_basic(made, 's', property);
        }
        if (r >= 0) {
            sd_bus_slot* asked = nullptr;
            r = sd_bus_call_async(GetBus(), &asked, made, handler, userdata,
                                  ToMicroseconds(remote->GetTimeout()));
            slot.reset(asked);
        }
        return r;
    }

    void AskForAll() {
        touched = 0;
        retry.Stop();
        if (const int r = Ask(allQuestion, "GetAll", nullptr, OnAll, this); r < 0) {
            LogFailure(ErrorText(-r));
            AskAgainLater(MakeStatusCodeFromReturnCode(r));
        }
    }

    static int OnAll(sd_bus_message* reply, void* userdata, sd_bus_error*) {
        const auto self = static_cast<State*>(userdata)->shared_from_this();
        RunContained([&] { self->HandleAll(reply); }, reply);
        return 0;
    }
    void HandleAll(sd_bus_message* reply) {
        const BusSlot asked = std::move(allQuestion);
        const StatusCode before = status;
        if (sd_bus_message_is_method_error(reply, nullptr) > 0) {
            if (sd_bus_is_open(GetBus()) <= 0) {
                return;  // the end of the loop follows
            }
            LogFailure(sd_bus_message_get_error(reply)->name);
            AskAgainLater(Error::FromReply(reply).GetStatus());
            Tell(0, before);
            return;
        }
        if (announced.GetStatus() != StatusCode::Ok) {
            // Logged by the subscription. Without reports of changes nothing is kept.
            status = announced.GetStatus();
            phase = Phase::Deaf;
            announced.Reset();
            Tell(Empty(), before);
            return;
        }
        if (sd_bus_message_has_signature(reply, "a{sv}") <= 0) {
            ++Bus().clients.wrongReplies;
            LogFailure("a reply of another signature");
            AskAgainLater(StatusCode::InvalidArgument);
            Tell(0, before);
            return;
        }
        int error = 0;
        const std::uint64_t changed = ReadValues(reply, 0, touched, error);
        if (error < 0) {
            LogFailure(ErrorText(-error));
            AskAgainLater(MakeStatusCodeFromReturnCode(error));
        } else {
            status = StatusCode::Ok;
            retry.Reset();
            hasLogged = false;
        }
        Tell(changed, before);
    }

    [[gnu::cold]] void LogFailure(const char* why) {
        unsigned long omitted = 0;
        if (!std::exchange(hasLogged, true) && Bus().watching.limit.Allows(omitted)) {
            TERN_LOG_ERROR(LOGGER, "Failed to get the properties %s of %s %s: %s (%lu like it not logged)",
                           interface, remote->GetDestination().c_str(), remote->GetPath().c_str(), why,
                           omitted);
        }
    }
    void AskAgainLater(StatusCode failure) {
        status = failure;
        if (const int r = retry.Begin(Bus().core->GetLoop(), OnRetry, this); r < 0) {
            TERN_LOG_ERROR(LOGGER, "Failed to wait for the properties %s of %s %s (%d, %s)", interface,
                           remote->GetDestination().c_str(), remote->GetPath().c_str(), r, ErrorText(-r));
        }
    }
    static int OnRetry(sd_event_source* source, std::uint64_t, void* userdata) {
        const auto self = static_cast<State*>(userdata)->shared_from_this();
        RunContained([&] { self->AskForAll(); }, sd_event_source_get_event(source));
        return 0;
    }

    /// Of a known signature. Nobody's fault but the peer's where it is of another interface.
    int OnAnnounced(sd_bus_message* signal) {
        const StatusCode before = status;
        const char* name = nullptr;
        std::uint64_t changed = 0;
        int error = sd_bus_message_read_basic(signal, 's', &name);
        if (error > 0) {
            if (std::strcmp(name, interface) != 0) {
                return 0;
            }
            changed = ReadValues(signal, 1, 0, error);
        }
        if (error >= 0) {
            error = sd_bus_message_enter_container(signal, 'a', "s");
            while (error > 0 && (error = sd_bus_message_read_basic(signal, 's', &name)) > 0) {
                if (const std::size_t place = Find(name); place < count) {
                    touched |= Bit(place);
                    changed |= table[place].clear(values.get()) ? Bit(place) : 0;
                    AskForOne(place);
                }
            }
        }
        if (error < 0) {
            // Whatever has changed is in the answer.
            LogFailure(ErrorText(-error));
            AskForAll();
        }
        Tell(changed, before);
        return 0;
    }

    void AskForOne(std::size_t place) {
        Question& question = questions[place];
        if (question.slot != nullptr) {
            question.isOld = true;
            return;
        }
        question.isOld = false;
        if (const int r = Ask(question.slot, "Get", table[place].name, OnOne, &question); r < 0) {
            LogOne(place, ErrorText(-r));
        }
    }
    static int OnOne(sd_bus_message* reply, void* userdata, sd_bus_error*) {
        auto& question = *static_cast<Question*>(userdata);
        const auto self = question.cache->shared_from_this();
        RunContained([&] { self->HandleOne(question.place, reply); }, reply);
        return 0;
    }
    void HandleOne(std::size_t place, sd_bus_message* reply) {
        const BusSlot asked = std::move(questions[place].slot);
        if (questions[place].isOld) {
            AskForOne(place);
        } else if (sd_bus_message_is_method_error(reply, nullptr) > 0) {
            if (sd_bus_is_open(GetBus()) > 0) {
                LogOne(place, sd_bus_message_get_error(reply)->name);
            }
        } else if (sd_bus_message_has_signature(reply, "v") <= 0) {
            Drop(place, sd_bus_message_get_signature(reply, 1));
        } else if (ReadValue(reply, place) >= 0) {
            Tell(Bit(place), status);
        }
    }
    [[gnu::cold]] void LogOne(std::size_t place, const char* why) {
        unsigned long omitted = 0;
        if (Bus().watching.limit.Allows(omitted)) {
            TERN_LOG_WARNING(LOGGER, "Failed to get the property %s.%s of %s %s: %s (%lu like it not logged)",
                             interface, table[place].name, remote->GetDestination().c_str(),
                             remote->GetPath().c_str(), why, omitted);
        }
    }

    std::size_t Find(const char* name) const noexcept {
        std::size_t place = 0;
        while (place < count && std::strcmp(table[place].name, name) != 0) {
            ++place;
        }
        return place;
    }

    /// Reads the dictionary that comes after `before` other values, except for the properties in `left`.
    /// Returns the properties that have changed. `error` is negative when not all could be read, else 0.
    std::uint64_t ReadValues(sd_bus_message* message, unsigned before, std::uint64_t left, int& error) {
        std::uint64_t changed = 0;
        int r = sd_bus_message_enter_container(message, 'a', ENTRY);
        for (std::size_t index = 0; r > 0 && (r = sd_bus_message_enter_container(message, 'e', "sv")) > 0;
             ++index) {
            const char* name = nullptr;
            r = sd_bus_message_read_basic(message, 's', &name);
            const std::size_t place = r > 0 ? Find(name) : count;
            if (place == count || (left & Bit(place)) != 0) {
                r = r > 0 ? sd_bus_message_skip(message, "v") : r;
            } else {
                touched |= Bit(place);
                questions[place].slot.reset();  // newer than what would be answered
                const bool wasThere = table[place].clear(values.get());
                const int read = ReadValue(message, place);
                changed |= wasThere || read >= 0 ? Bit(place) : 0;
                if (read == -ENOMEM) {
                    r = read;
                    continue;
                }
                if (read < 0) {
                    // Somewhere in the value. Each property takes the way back once at most.
                    left |= Bit(place);
                    r = Return(message, before, index);
                    continue;
                }
            }
            r = r >= 0 ? sd_bus_message_exit_container(message) : r;
        }
        if (r >= 0) {
            r = sd_bus_message_exit_container(message);
        }
        error = std::min(r, 0);
        return changed;
    }
    /// Goes from wherever it is to behind the entry `index` of the dictionary.
    static int Return(sd_bus_message* message, unsigned before, std::size_t index) {
        int r = sd_bus_message_rewind(message, 1);
        for (unsigned i = 0; r >= 0 && i < before; ++i) {
            r = sd_bus_message_skip(message, "s");
        }
        r = r >= 0 ? sd_bus_message_enter_container(message, 'a', ENTRY) : r;
        for (std::size_t i = 0; r >= 0 && i <= index; ++i) {
            r = sd_bus_message_skip(message, ENTRY);
        }
        return r < 0 ? r : 1;
    }
    /// Reads a variant. Negative: it stands somewhere in it.
    int ReadValue(sd_bus_message* message, std::size_t place) {
        const char* found = "";
        int r = sd_bus_message_peek_type(message, nullptr, &found);
        if (r > 0 && std::strcmp(found, table[place].signature) != 0) {
            Drop(place, found);
            return -EINVAL;
        }
        r = sd_bus_message_enter_container(message, 'v', table[place].signature);
        r = r > 0 ? table[place].read(message, values.get()) : r;
        r = r >= 0 ? sd_bus_message_exit_container(message) : r;
        if (r < 0) {
            static_cast<void>(table[place].clear(values.get()));
            Drop(place, nullptr);
        }
        return r;
    }
    /// The content of the value is not for the log.
    [[gnu::cold]] void Drop(std::size_t place, const char* found) {
        ++Bus().watching.wrongProperties;
        unsigned long omitted = 0;
        if (!Bus().watching.limit.Allows(omitted)) {
            return;
        }
        if (found != nullptr) {
            TERN_LOG_WARNING(
                LOGGER,
                "Dropped a property %s.%s of %s %s: '%s' where '%s' is wanted (%lu like it not logged)",
                interface, table[place].name, remote->GetDestination().c_str(), remote->GetPath().c_str(),
                found, table[place].signature, omitted);
        } else {
            TERN_LOG_WARNING(
                LOGGER,
                "Dropped a property %s.%s of %s %s: no value of the wanted type (%lu like it not logged)",
                interface, table[place].name, remote->GetDestination().c_str(), remote->GetPath().c_str(),
                omitted);
        }
    }

    const std::shared_ptr<Remote> remote;
    const char* const interface;
    const CachedProperty* const table;
    const std::size_t count;
    const std::shared_ptr<void> values;

    StatusCode status = StatusCode::Busy;
    Phase phase = Phase::Listening;
    std::shared_ptr<OnChange> onChange;
    std::shared_ptr<NameOwner> owner;
    std::uint64_t id = 0;
    Subscription announced;
    BusSlot allQuestion;
    /// Announced since all was asked for.
    std::uint64_t touched = 0;
    std::vector<Question> questions;
    Retry retry;
    /// That this owner does not answer. Names can come and go fast: a limit bounds what is logged besides.
    bool hasLogged = false;
};

CachedProperties::CachedProperties(const std::shared_ptr<Remote>& remote, const char* interface,
                                   const CachedProperty* table, std::size_t count,
                                   std::shared_ptr<void> values)
    : mState(std::make_shared<State>(remote, interface, table, count, std::move(values))) {
    AssertDBusThread(*remote->GetState());
    mState->Begin();
}

CachedProperties::~CachedProperties() {
    mState->End();
}

StatusCode CachedProperties::GetStatus() const noexcept {
    return mState->status;
}

void CachedProperties::SetHandler(OnChange handler) {
    AssertDBusThread(mState->Bus());
    mState->onChange = handler ? std::make_shared<OnChange>(std::move(handler)) : nullptr;
}

void CachedProperties::Refresh() {
    AssertDBusThread(mState->Bus());
    if (mState->phase == State::Phase::Listening && mState->owner != nullptr &&
        !mState->owner->GetOwner().empty()) {
        mState->AskForAll();
    }
}

}  // namespace mwl::Typed::Detail
