#include "typed/name_owner.h"

#include <tern/foundation/log.h>
#include <tern/typed/error.h>

#include <cassert>
#include <string_view>
#include <utility>

#include "foundation/error_text.h"
#include "platform/static_text.h"
#include "typed/bus_core.h"
#include "typed/contained.h"

namespace mwl::Typed {

using mw::tern::MakeStatusCodeFromReturnCode;

namespace {

const StaticText LOGGER("Typed");

constexpr const char* BUS_NAME = "org.freedesktop.DBus";
constexpr const char* BUS_PATH = "/org/freedesktop/DBus";

}  // namespace

void AssertDBusThread([[maybe_unused]] const ReplyState& state) noexcept {
    // The dispatcher alone may be asked by any thread.
    assert(state.dispatcher.GetStatus() != StatusCode::Ok || state.dispatcher.IsHere());
}

std::shared_ptr<NameOwner> NameOwner::Of(const std::shared_ptr<ReplyState>& state, const std::string& name) {
    auto& owners = state->watching.owners;
    if (const auto found = owners.find(name); found != owners.end()) {
        auto known = found->second.lock();
        if (known != nullptr && known->mState != State::Failed) {
            return known;
        }
    }
    auto made = std::make_shared<NameOwner>(state, name);
    made->Begin();
    if (made->mState == State::Asking) {
        owners[name] = made;
    }
    return made;
}

NameOwner::NameOwner(std::shared_ptr<ReplyState> state, std::string name)
    : mBus(std::move(state)), mName(std::move(name)) {}

NameOwner::~NameOwner() {
    // After the end of the bus nothing is left there, and the thread may be another one.
    if (IsWaiting()) {
        auto& owners = mBus->watching.owners;
        // A successor of one that failed may have its place.
        if (const auto found = owners.find(mName); found != owners.end() && found->second.expired()) {
            owners.erase(found);
        }
    }
}

void NameOwner::Begin() {
    BusCore* const core = mBus->core;
    if (core == nullptr || !core->IsOpen()) {
        Fail(StatusCode::NotInitialized);
        return;
    }
    if (!core->AddStoppable(*this)) {
        OnStop();
        return;
    }
    if (sd_bus_service_name_is_valid(mName.c_str()) <= 0) {
        TERN_LOG_ERROR(LOGGER, "Refused to watch '%s', which is no name of a bus", mName.c_str());
        Fail(StatusCode::InvalidArgument);
        return;
    }
    // Without the type, which sd-bus would look up with a hash for each message: OnChanged looks at it.
    const std::string rule = "sender='" + std::string(BUS_NAME) + "',path='" + BUS_PATH + "',interface='" +
                             BUS_NAME + "',member='NameOwnerChanged',arg0='" + mName + "'";
    sd_bus* const bus = core->GetBus();
    sd_bus_slot* slot = nullptr;
    int r = sd_bus_add_match_async(bus, &slot, rule.c_str(), OnChanged, OnListening, this);
    mMatch.reset(slot);
    if (r >= 0) {
        slot = nullptr;
        r = sd_bus_call_method_async(bus, &slot, BUS_NAME, BUS_PATH, BUS_NAME, "GetNameOwner", OnAnswer, this,
                                     "s", mName.c_str());
        mQuestion.reset(slot);
    }
    if (r < 0) {
        TERN_LOG_ERROR(LOGGER, "Failed to watch the owner of %s (%d, %s)", mName.c_str(), r, ErrorText(-r));
        Fail(MakeStatusCodeFromReturnCode(r));
    }
}

std::uint64_t NameOwner::Add(std::weak_ptr<Listener> listener) {
    mListeners.emplace(mNextId, std::move(listener));
    return mNextId++;
}

void NameOwner::Fail(StatusCode status) {
    mMatch.reset();
    mQuestion.reset();
    mStatus = status;
    mOwner.clear();
    mState = State::Failed;
    Tell();
}

void NameOwner::FailToRead(int error) {
    TERN_LOG_ERROR(LOGGER, "Failed to read who owns %s (%d, %s)", mName.c_str(), error, ErrorText(-error));
    Fail(MakeStatusCodeFromReturnCode(error));
}

void NameOwner::SetOwner(std::string owner) {
    if (mState == State::Known && owner == mOwner) {
        return;
    }
    mState = State::Known;
    mOwner = std::move(owner);
    Tell();
}

void NameOwner::Tell() {
    // Listeners that begin meanwhile know the state already.
    const std::uint64_t end = mNextId;
    for (auto next = mListeners.begin(); next != mListeners.end() && next->first < end;) {
        const std::uint64_t id = next->first;
        if (const std::shared_ptr<Listener> listener = next->second.lock()) {
            listener->OnOwner();
        }
        next = mListeners.upper_bound(id);
    }
}

void NameOwner::OnStop() noexcept {
    mMatch.reset();
    mQuestion.reset();
    mBus->watching.owners.erase(mName);
    mOwner.clear();
    mState = State::Stopped;
    mStatus = StatusCode::Stopping;
}

int NameOwner::OnChanged(sd_bus_message* message, void* userdata, sd_bus_error*) {
    const auto self = static_cast<NameOwner*>(userdata)->shared_from_this();
    // sd-bus lets signals of every sender pass a rule with a name that is not unique.
    const char* const sender = sd_bus_message_get_sender(message);
    const char* name = nullptr;
    const char* former = nullptr;
    const char* now = nullptr;
    if (sd_bus_message_is_signal(message, nullptr, nullptr) > 0 && sender != nullptr &&
        std::string_view(sender) == BUS_NAME) {
        if (const int r = sd_bus_message_read(message, "sss", &name, &former, &now); r > 0) {
            // The answer would say the same, because otherwise another change would have come before it; or
            // it fails.
            self->mQuestion.reset();
            self->mStatus = StatusCode::Ok;
            RunContained([&] { self->SetOwner(now); }, message);
        } else {
            RunContained([&] { self->FailToRead(r); }, message);
        }
    }
    return 0;
}

int NameOwner::OnListening(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    const auto self = static_cast<NameOwner*>(userdata)->shared_from_this();
    // A lost connection is reported by the end of the loop.
    if (sd_bus_message_is_method_error(reply, nullptr) > 0 &&
        sd_bus_is_open(sd_bus_message_get_bus(reply)) > 0) {
        const sd_bus_error* const error = sd_bus_message_get_error(reply);
        TERN_LOG_ERROR(LOGGER, "The bus refused to tell of the owner of %s: %s, %s", self->mName.c_str(),
                       error->name, error->message);
        RunContained([&] { self->Fail(Error::FromReply(reply).GetStatus()); }, reply);
    }
    return 0;
}

int NameOwner::OnAnswer(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    const auto self = static_cast<NameOwner*>(userdata)->shared_from_this();
    const char* owner = "";
    int r = 1;
    self->mStatus = StatusCode::Ok;
    if (sd_bus_message_is_method_error(reply, nullptr) > 0) {
        if (sd_bus_is_open(sd_bus_message_get_bus(reply)) <= 0) {
            self->mStatus = StatusCode::Busy;
            return 0;
        }
        const sd_bus_error* const error = sd_bus_message_get_error(reply);
        if (sd_bus_error_has_name(error, SD_BUS_ERROR_NAME_HAS_NO_OWNER) <= 0) {
            TERN_LOG_ERROR(LOGGER, "Failed to ask for the owner of %s: %s, %s", self->mName.c_str(),
                           error->name, error->message);
            RunContained([&] { self->mStatus = Error::FromReply(reply).GetStatus(); }, reply);
        }
    } else {
        r = sd_bus_message_read_basic(reply, 's', &owner);
    }
    RunContained([&] { r > 0 ? self->SetOwner(owner) : self->FailToRead(r); }, reply);
    return 0;
}

}  // namespace mwl::Typed
