#include <tern/typed/object_mirror.h>

#include <tern/foundation/log.h>
#include <tern/typed/codec.h>
#include <tern/typed/error.h>
#include <tern/typed/remote.h>
#include <tern/typed/subscription.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "foundation/error_text.h"
#include "platform/static_text.h"
#include "typed/bus_core.h"
#include "typed/contained.h"
#include "typed/name_owner.h"
#include "typed/reading.h"
#include "typed/reply_state.h"
#include "typed/retry.h"
#include "typed/time_limit.h"

namespace mwl::Typed {

using mw::tern::MakeStatusCodeFromReturnCode;

namespace {

const StaticText LOGGER("Typed");

constexpr const char* MANAGER = "org.freedesktop.DBus.ObjectManager";
/// More of those that are gone are not remembered while the peer is asked; it is asked again then.
constexpr std::size_t REMEMBERED = 4096;
/// Behind so many values that cannot be kept, those that follow are not looked at: each costs a way from the
/// beginning of its interface.
constexpr unsigned LEFT_OUT = 64;

/// The interfaces of every object. Peers name these when objects come, but not when they go.
bool IsOfEveryObject(std::string_view interface) {
    constexpr std::array<std::string_view, 4> ALL{"org.freedesktop.DBus.Peer",
                                                  "org.freedesktop.DBus.Introspectable",
                                                  "org.freedesktop.DBus.Properties", MANAGER};
    for (const std::string_view one : ALL) {
        if (interface == one) {
            return true;
        }
    }
    return false;
}

/// Reads a sealed "a{sv}".
int ReadProperties(sd_bus_message* message, ObjectMirror::Properties& properties, bool& isLeftOut) {
    unsigned leftOut = 0;
    std::size_t index = 0;
    int r = sd_bus_message_enter_container(message, 'a', "{sv}");
    for (; r > 0 && (r = sd_bus_message_enter_container(message, 'e', "sv")) > 0; ++index) {
        const char* name = nullptr;
        r = sd_bus_message_read_basic(message, 's', &name);
        Any value;
        Fault fault;
        r = r > 0 ? ReadAny(message, value, fault) : r;
        if (r >= 0) {
            properties.insert_or_assign(name, std::move(value));
            r = sd_bus_message_exit_container(message);
        } else if (r != -ENOMEM) {
            // Somewhere in it: from the beginning to behind it.
            isLeftOut = true;
            r = ++leftOut < LEFT_OUT ? sd_bus_message_rewind(message, 1) : -E2BIG;
            r = r >= 0 ? sd_bus_message_enter_container(message, 'a', "{sv}") : r;
            for (std::size_t i = 0; r > 0 && i <= index; ++i) {
                r = sd_bus_message_skip(message, "{sv}");
            }
        }
        r = r >= 0 ? 1 : r;
    }
    if (r < 0 && r != -ENOMEM) {
        isLeftOut = true;  // those that would follow
        r = 0;
    }
    return r;
}

}  // namespace

struct ObjectMirror::State final : Stoppable, NameOwner::Listener, std::enable_shared_from_this<State> {
    /// A signal of the manager.
    class Announced final : public Detail::SignalHandler {
    public:
        /// Negative where the signal cannot be read.
        using Handler = int (State::*)(sd_bus_message* signal);
        Announced(State& mirror, Handler handler) : mMirror(mirror), mHandler(handler) {}
        int Run(sd_bus_message* signal) override {
            const std::shared_ptr<State> kept = mMirror.shared_from_this();
            return ((*kept).*mHandler)(signal);
        }

    private:
        State& mMirror;
        const Handler mHandler;
    };

    enum class Phase {
        Listening,  ///< or about to begin
        Deaf,       ///< what comes or goes is not reported, so that nothing is kept; `status` says why
        Ended,
    };

    State(const Typed::Bus& bus, std::string destination, std::string root, OnAdded come, OnRemoved go,
          OnReady ready)
        : manager(bus, std::move(destination), std::move(root)),
          onAdded(std::move(come)),
          onRemoved(std::move(go)),
          onReady(std::move(ready)) {}

    ReplyState& Bus() const noexcept { return *manager.GetState(); }
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
        // Before anything is asked for, so that nothing is missed.
        added = Subscribe(manager, MANAGER, "InterfacesAdded", "oa{sa{sv}}",
                          std::make_unique<Announced>(*this, &State::OnInterfacesAdded));
        if (added.GetStatus() == StatusCode::Busy) {
            removed = Subscribe(manager, MANAGER, "InterfacesRemoved", "oas",
                                std::make_unique<Announced>(*this, &State::OnInterfacesRemoved));
        }
        if (!IsHearing(StatusCode::Busy)) {
            return;
        }
        owner = NameOwner::Of(manager.GetState(), manager.GetDestination());
        id = owner->Add(weak_from_this());
        if (owner->GetState() != NameOwner::State::Asking) {
            // Nothing is reported here: there is nothing yet.
            OnOwner();
        }
    }
    /// Whether both subscriptions have the status; if not, that is the mirror's, which is deaf then.
    bool IsHearing(StatusCode wanted) {
        for (const Subscription* const one : {&added, &removed}) {
            if (one->GetStatus() != wanted) {
                status = one->GetStatus();
                phase = Phase::Deaf;
                added.Reset();
                removed.Reset();
                return false;
            }
        }
        return true;
    }
    /// The bus, or a handler, has ended it.
    bool HasEnded() const noexcept { return phase == Phase::Ended; }
    void End() noexcept {
        AssertDBusThread(Bus());
        OnStop();
    }
    void OnStop() noexcept override {
        Leave();
        added.Reset();
        removed.Reset();
        if (owner != nullptr) {
            owner->Remove(id);
        }
        Forget();
        objects.clear();
        status = StatusCode::Stopping;
        phase = Phase::Ended;
    }
    /// All but the objects.
    void Forget() noexcept {
        question.reset();
        retry.Reset();
        gone.clear();
        isOld = false;
        hasLogged = false;
        hasLoggedLimit = false;
        omitted = 0;
    }

    void OnOwner() override {
        if (phase == Phase::Deaf) {
            return;
        }
        Forget();
        if (owner->GetState() == NameOwner::State::Failed) {
            status = owner->GetStatus();
        } else {
            status = owner->GetOwner().empty() ? StatusCode::NotFound : StatusCode::Busy;
        }
        RemoveAll();
        if (!HasEnded() && status == StatusCode::Busy) {
            AskForAll();
        }
    }

    void AskForAll() {
        gone.clear();
        isOld = false;
        retry.Stop();
        sd_bus_message* made = nullptr;
        // Of the owner as it is now: what a former one answers is answered to nobody.
        int r = sd_bus_message_new_method_call(GetBus(), &made, owner->GetOwner().c_str(),
                                               manager.GetPath().c_str(), MANAGER, "GetManagedObjects");
        const BusMessage call(made);
        if (r >= 0) {
            sd_bus_slot* asked = nullptr;
            r = sd_bus_call_async(GetBus(), &asked, made, OnAnswer, this,
                                  ToMicroseconds(manager.GetTimeout()));
            question.reset(asked);
        }
        if (r < 0) {
            AskAgainLater(MakeStatusCodeFromReturnCode(r), ErrorText(-r));
        }
    }
    [[gnu::cold]] void LogFailure(const char* why) {
        unsigned long others = 0;
        if (!std::exchange(hasLogged, true) && Bus().watching.limit.Allows(others)) {
            TERN_LOG_ERROR(LOGGER, "Failed to get the objects of %s %s: %s (%lu like it not logged)",
                           manager.GetDestination().c_str(), manager.GetPath().c_str(), why, others);
        }
    }
    void AskAgainLater(StatusCode failure, const char* why) {
        status = failure;
        LogFailure(why);
        if (const int r = retry.Begin(Bus().core->GetLoop(), OnRetry, this); r < 0) {
            TERN_LOG_ERROR(LOGGER, "Failed to wait for the objects of %s %s (%d, %s)",
                           manager.GetDestination().c_str(), manager.GetPath().c_str(), r, ErrorText(-r));
        }
    }
    static int OnRetry(sd_event_source* source, std::uint64_t, void* userdata) {
        const auto self = static_cast<State*>(userdata)->shared_from_this();
        RunContained([&] { self->AskForAll(); }, sd_event_source_get_event(source));
        return 0;
    }
    static int OnAnswer(sd_bus_message* reply, void* userdata, sd_bus_error*) {
        const auto self = static_cast<State*>(userdata)->shared_from_this();
        RunContained([&] { self->HandleAnswer(reply); }, reply);
        return 0;
    }
    void HandleAnswer(sd_bus_message* reply) {
        const BusSlot asked = std::move(question);
        if (sd_bus_message_is_method_error(reply, nullptr) > 0) {
            // A lost connection is reported by the end of the loop.
            if (sd_bus_is_open(GetBus()) > 0) {
                AskAgainLater(Error::FromReply(reply).GetStatus(), sd_bus_message_get_error(reply)->name);
            }
            return;
        }
        if (!IsHearing(StatusCode::Ok)) {
            // Logged by the subscription. Without reports of changes nothing is kept.
            RemoveAll();
            return;
        }
        if (sd_bus_message_has_signature(reply, "a{oa{sa{sv}}}") <= 0) {
            ++Bus().clients.wrongReplies;
            AskAgainLater(StatusCode::InvalidArgument, "a reply of another signature");
            return;
        }
        if (isOld) {
            AskForAll();
            return;
        }
        int r = sd_bus_message_enter_container(reply, 'a', "{oa{sa{sv}}}");
        while (r > 0 && !HasEnded() && (r = sd_bus_message_enter_container(reply, 'e', "oa{sa{sv}}")) > 0) {
            r = AddObject(reply, true);
            r = r >= 0 ? sd_bus_message_exit_container(reply) : r;
        }
        gone.clear();
        if (HasEnded()) {
            return;
        }
        if (r < 0) {
            // Objects that were read are there, and will not be reported again.
            AskAgainLater(StatusOfReading(r), ErrorText(-r));
            return;
        }
        status = StatusCode::Ok;
        retry.Reset();
        hasLogged = false;
        if (onReady) {
            onReady();
        }
    }

    int OnInterfacesAdded(sd_bus_message* signal) {
        const int r = AddObject(signal, false);
        if (r < 0 && !HasEnded()) {
            AskAnew();
        }
        return r;
    }
    /// A change could not be read, which the subscription counts and logs: what there is is in an answer.
    void AskAnew() {
        status = StatusCode::Busy;
        if (question != nullptr) {
            isOld = true;
        } else {
            AskForAll();
        }
    }
    int OnInterfacesRemoved(sd_bus_message* signal) {
        const char* text = nullptr;
        int r = sd_bus_message_read_basic(signal, 'o', &text);
        const std::string path = r > 0 ? text : "";
        r = r > 0 ? sd_bus_message_enter_container(signal, 'a', "s") : r;
        while (r > 0 && !HasEnded() && (r = sd_bus_message_read_basic(signal, 's', &text)) > 0) {
            const std::string interface = text;
            if (question != nullptr) {
                if (gone.size() < REMEMBERED) {
                    gone.emplace(path, interface);
                } else {
                    isOld = true;
                }
            }
            RemoveOne(path, interface);
        }
        if (r < 0 && !HasEnded()) {
            // An answer reports only what there is.
            RemoveAll();
            if (!HasEnded()) {
                AskAnew();
            }
        }
        return r;
    }

    /// Reads "oa{sa{sv}}". An object that has gone since the question is not in an answer any more. Negative:
    /// from there on it cannot be read, and an interface whose values cannot be read is not reported.
    int AddObject(sd_bus_message* message, bool isAnswer) {
        const char* text = nullptr;
        int r = sd_bus_message_read_basic(message, 'o', &text);
        const std::string path = r > 0 ? text : "";
        r = r > 0 ? sd_bus_message_enter_container(message, 'a', "{sa{sv}}") : r;
        while (r > 0 && !HasEnded() && (r = sd_bus_message_enter_container(message, 'e', "sa{sv}")) > 0) {
            r = sd_bus_message_read_basic(message, 's', &text);
            const std::string interface = r > 0 ? text : "";
            bool isNew = r > 0;
            if (isAnswer) {
                isNew = isNew && gone.count({path, interface}) == 0;
            } else {
                gone.erase({path, interface});
            }
            Properties properties;
            isNew = isNew && AddOne(path, interface);
            if (isNew) {
                r = TakeProperties(message, path, interface, properties);
            } else {
                r = r > 0 ? sd_bus_message_skip(message, "a{sv}") : r;
            }
            r = r >= 0 ? sd_bus_message_exit_container(message) : r;
            if (isNew && r < 0) {
                static_cast<void>(TakeOut(path, interface));
            } else if (isNew && onAdded) {
                onAdded(path, interface, properties);
            }
        }
        return r >= 0 && !HasEnded() ? sd_bus_message_exit_container(message) : r;
    }
    /// Reads "a{sv}" from a copy, so that a value that cannot be read costs no more than its interface.
    int TakeProperties(sd_bus_message* message, const std::string& path, const std::string& interface,
                       Properties& properties) {
        if (!onAdded) {
            return sd_bus_message_skip(message, "a{sv}");
        }
        sd_bus_message* made = nullptr;
        int r = sd_bus_message_new_signal(GetBus(), &made, "/", MANAGER, "Copy");
        const BusMessage copy(made);
        r = r >= 0 ? sd_bus_message_copy(made, message, 0) : r;
        r = r >= 0 ? sd_bus_message_seal(made, 1, 0) : r;
        r = r >= 0 ? sd_bus_message_rewind(made, 1) : r;
        bool isLeftOut = false;
        r = r >= 0 ? ReadProperties(made, properties, isLeftOut) : r;
        unsigned long notLogged = 0;
        if (isLeftOut && Bus().watching.limit.Allows(notLogged)) {
            TERN_LOG_WARNING(
                LOGGER, "Left out values of %s at %s of %s: they cannot be kept (%lu like it not logged)",
                interface.c_str(), path.c_str(), manager.GetDestination().c_str(), notLogged);
        }
        return r;
    }

    /// Whether it was not there, and is now.
    bool AddOne(const std::string& path, const std::string& interface) {
        if (IsOfEveryObject(interface)) {
            return false;
        }
        const auto found = objects.find(path);
        if (found != objects.end() && found->second.count(interface) > 0) {
            return false;
        }
        const std::size_t size = interface.size() + (found == objects.end() ? path.size() : 0);
        if (!IsBelow(path) || (found == objects.end() && objects.size() == OBJECTS) ||
            interfaces == INTERFACES || bytes + size > NAME_BYTES) {
            ++omitted;
            unsigned long others = 0;
            if (!std::exchange(hasLoggedLimit, true) && Bus().watching.limit.Allows(others)) {
                TERN_LOG_ERROR(LOGGER,
                               "Objects of %s %s are left out: there are too many, or it is not above them "
                               "(%lu like it not logged)",
                               manager.GetDestination().c_str(), manager.GetPath().c_str(), others);
            }
            return false;
        }
        objects[path].insert(interface);
        ++interfaces;
        bytes += size;
        return true;
    }
    /// Whether it was there, and is not any more.
    bool TakeOut(const std::string& path, const std::string& interface) {
        const auto found = objects.find(path);
        if (found == objects.end() || found->second.erase(interface) == 0) {
            return false;
        }
        --interfaces;
        bytes -= interface.size();
        if (found->second.empty()) {
            objects.erase(found);
            bytes -= path.size();
        }
        return true;
    }
    void RemoveOne(const std::string& path, const std::string& interface) {
        if (TakeOut(path, interface) && onRemoved) {
            onRemoved(path, interface);
        }
    }
    void RemoveAll() {
        while (!objects.empty() && !HasEnded()) {
            const auto first = objects.begin();
            RemoveOne(std::string(first->first), std::string(*first->second.begin()));
        }
    }
    bool IsBelow(const std::string& path) const {
        const std::string& root = manager.GetPath();
        return root == "/" || path == root ||
               (path.size() > root.size() && path.compare(0, root.size(), root) == 0 &&
                path[root.size()] == '/');
    }

    Remote manager;
    OnAdded onAdded;
    OnRemoved onRemoved;
    OnReady onReady;

    StatusCode status = StatusCode::Busy;
    Phase phase = Phase::Listening;
    std::shared_ptr<NameOwner> owner;
    std::uint64_t id = 0;
    Subscription added;
    Subscription removed;
    BusSlot question;
    /// Interfaces that were removed since the question.
    std::set<std::pair<std::string, std::string>> gone;
    /// More was removed than is remembered.
    bool isOld = false;
    Retry retry;

    Objects objects;
    std::size_t interfaces = 0;
    /// Of all names in `objects`.
    std::size_t bytes = 0;
    std::size_t omitted = 0;
    /// That this owner does not answer, or reports too much. Names can come and go fast: a limit bounds what
    /// is logged besides.
    bool hasLogged = false;
    bool hasLoggedLimit = false;
};

ObjectMirror::ObjectMirror() noexcept = default;

ObjectMirror::ObjectMirror(const Bus& bus, std::string destination, std::string root, OnAdded onAdded,
                           OnRemoved onRemoved, OnReady onReady)
    : mState(std::make_shared<State>(bus, std::move(destination), std::move(root), std::move(onAdded),
                                     std::move(onRemoved), std::move(onReady))) {
    AssertDBusThread(mState->Bus());
    mState->Begin();
}

ObjectMirror::ObjectMirror(ObjectMirror&& other) noexcept = default;

ObjectMirror& ObjectMirror::operator=(ObjectMirror&& other) noexcept {
    if (this != &other) {
        // The new one is in place when the old one goes, which may be what runs.
        const ObjectMirror former(std::move(*this));
        mState = std::move(other.mState);
    }
    return *this;
}

ObjectMirror::~ObjectMirror() {
    Reset();
}

const ObjectMirror::Objects& ObjectMirror::GetObjects() const noexcept {
    /// Lives for ever, like StaticText.
    union Forever {
        Objects objects;
        Forever() : objects() {}
        ~Forever() {}  // NOLINT(modernize-use-equals-default): that is deleted
    };
    static const Forever NONE;
    // NOLINTNEXTLINE(clang-analyzer-core.uninitialized.UndefReturn): it is initialised, in a union
    return mState != nullptr ? mState->objects : NONE.objects;
}

std::size_t ObjectMirror::GetOmitted() const noexcept {
    return mState != nullptr ? mState->omitted : 0;
}

StatusCode ObjectMirror::GetStatus() const noexcept {
    return mState != nullptr ? mState->status : StatusCode::NotInitialized;
}

void ObjectMirror::Reset() noexcept {
    if (const std::shared_ptr<State> state = std::move(mState)) {
        state->End();
    }
}

}  // namespace mwl::Typed
