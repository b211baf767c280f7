#include <tern/typed/call.h>

#include <tern/foundation/log.h>

#include <cassert>
#include <string>

#include "platform/static_text.h"
#include "typed/bus_core.h"
#include "typed/contained.h"
#include "typed/reply_state.h"
#include "typed/sending.h"
#include "typed/time_limit.h"

namespace mwl::Typed {

namespace {

const StaticText LOGGER("Typed");

}  // namespace

CallBase::CallBase(std::shared_ptr<const Remote> remote, const char* interface, const char* member) noexcept
    : mRemote(std::move(remote)), mTimeout(mRemote->GetTimeout()) {
    const ReplyState& state = *mRemote->GetState();
    assert(state.dispatcher.GetStatus() != StatusCode::Ok || state.dispatcher.IsHere());
    if (state.core == nullptr || !state.core->IsOpen()) {
        Fail(GetBusStatus());
        return;
    }
    sd_bus_message* made = nullptr;
    const int r =
        sd_bus_message_new_method_call(state.core->GetBus(), &made, mRemote->GetDestination().c_str(),
                                       mRemote->GetPath().c_str(), interface, member);
    mMessage.reset(made);
    if (r < 0) {
        Fail(Cause::Message, r);
    }
}

CallBase::CallBase(CallBase&& other) noexcept
    // A copy: the outcome of `other` is still reported with it.
    : mRemote(other.mRemote),  // NOLINT(performance-move-constructor-init)
      mMessage(std::move(other.mMessage)),
      mTimeout(0),
      mPhase(other.mPhase == Phase::Waiting ? Phase::Spent : std::exchange(other.mPhase, Phase::Spent)),
      mIsAnswered(other.mIsAnswered) {
    assert(other.mPhase != Phase::Waiting);
    if (mPhase == Phase::New) {
        mTimeout = other.mTimeout;
    } else if (mPhase == Phase::Failed) {
        mCause = other.mCause;
        mError = other.mError;
        mReason = std::move(other.mReason);
        if (mCause == Cause::Argument) {
            mIndex = other.mIndex;
            mName = other.mName;
        }
    }
}

CallBase::~CallBase() {
    if (mPhase == Phase::Waiting) {
        assert(mRemote->GetState()->dispatcher.IsHere());
        EndWaiting();
    }
}

/// The bus's own state.
StatusCode CallBase::GetBusStatus() const noexcept {
    const StatusCode status = mRemote->GetState()->dispatcher.GetStatus();
    return status == StatusCode::Ok ? StatusCode::Stopping : status;
}

void CallBase::SetSensitive() noexcept {
    if (sd_bus_message* const message = GetMessage()) {
        static_cast<void>(sd_bus_message_sensitive(message));  // of a message that is there
    }
}

void CallBase::RefuseArgument(unsigned index, const char* name, int error) noexcept {
    if (mPhase == Phase::New) {
        Fail(Cause::Argument, error);
        mIndex = index;
        mName = name;
    }
}

void CallBase::Refuse(Error reason) {
    if (mPhase != Phase::New && mPhase != Phase::Failed) {
        return;
    }
    auto owned = std::make_unique<Error>(std::move(reason));
    if (mPhase == Phase::New) {
        Fail(Cause::Status, 0);
    }
    mReason = std::move(owned);
    mCause = Cause::Reason;
}

bool CallBase::Fail(Cause cause, int error) noexcept {
    mCause = cause;
    mError = error;
    mPhase = Phase::Failed;
    ++mRemote->GetState()->clients.unsent;
    return false;
}

bool CallBase::Fail(StatusCode status) noexcept {
    return Fail(Cause::Status, static_cast<int>(status));
}

bool CallBase::Send() noexcept {
    if (mPhase != Phase::New) {
        return false;
    }
    ReplyState& state = *mRemote->GetState();
    assert(state.dispatcher.GetStatus() != StatusCode::Ok || state.dispatcher.IsHere());
    if (state.core == nullptr || !state.core->AddStoppable(*this)) {
        return Fail(GetBusStatus());
    }
    int r = 0;
    if (!mIsAnswered) {
        Leave();
        r = sd_bus_message_set_expect_reply(mMessage.get(), 0);
        r = r < 0 ? r : sd_bus_send(state.core->GetBus(), mMessage.get(), nullptr);
    } else if (state.clients.waiting >= state.clients.limit) {
        Leave();
        return Fail(Cause::TooMany, 0);
    } else {
        sd_bus_slot* slot = nullptr;
        r = sd_bus_call_async(state.core->GetBus(), &slot, mMessage.get(), OnReply, this,
                              ToMicroseconds(mTimeout));
        mSlot.reset(slot);
    }
    if (r < 0) {
        Leave();
        return Fail(Cause::Sending, r);
    }
    mMessage.reset();
    ++state.clients.sent;
    state.clients.waiting += mIsAnswered ? 1 : 0;
    mPhase = mIsAnswered ? Phase::Waiting : Phase::Sent;
    return mIsAnswered;
}

void CallBase::SendUnasked() {
    mIsAnswered = false;
    // Before it is sent: there is no message then.
    const char* const member = mMessage != nullptr ? sd_bus_message_get_member(mMessage.get()) : nullptr;
    const BusMessage message(sd_bus_message_ref(mMessage.get()));
    Send();
    if (mPhase == Phase::Sent) {
        mPhase = Phase::Spent;
        return;
    }
    unsigned long omitted = 0;
    if (mRemote->GetState()->clients.unsentLog.Allows(omitted)) {
        TERN_LOG_WARNING(LOGGER, "%s %s: failed to call %s: %s (%lu like it not logged)",
                         mRemote->GetDestination().c_str(), mRemote->GetPath().c_str(),
                         member != nullptr ? member : "a method", GetFailure().GetText().c_str(), omitted);
    }
}

/// No reply is waited for any more.
void CallBase::EndWaiting() noexcept {
    Leave();
    mSlot.reset();
    --mRemote->GetState()->clients.waiting;
}

int CallBase::OnReply(sd_bus_message* reply, void* self, sd_bus_error*) noexcept {
    auto& call = *static_cast<CallBase*>(self);
    call.EndWaiting();
    call.mReply = reply;
    call.mPhase = Phase::Answered;
    RunContained([&call] { call.OnDone(); }, reply);
    return 1;
}

/// The bus closes, or the end of the turn has come for one that was postponed.
void CallBase::OnStop() noexcept {
    if (mPhase == Phase::Waiting) {
        EndWaiting();
        mCause = Cause::Status;
        mError = static_cast<int>(StatusCode::Stopping);
        mPhase = Phase::Failed;
    }
    RunContained([this] { OnDone(); }, mRemote->GetState()->core->GetLoop());
}

void CallBase::Postpone() noexcept {
    ReplyState& state = *mRemote->GetState();
    if (state.core != nullptr && state.core->AddPostponed(*this)) {
        return;
    }
    unsigned long omitted = 0;
    if (state.clients.unsentLog.Allows(omitted)) {
        TERN_LOG_WARNING(LOGGER,
                         "%s %s: called without an open bus, so the handler does not run (%lu like it not "
                         "logged)",
                         mRemote->GetDestination().c_str(), mRemote->GetPath().c_str(), omitted);
    }
}

Error CallBase::GetFailure() const {
    if (mPhase != Phase::Failed) {
        return {StatusCode::NotInitialized, "the call has been used already"};
    }
    switch (mCause) {
        case Cause::Status:
            return static_cast<StatusCode>(mError);
        case Cause::TooMany:
            return Error::LimitsExceeded("too many calls wait for their reply");
        case Cause::Argument:
            return ErrorOfArgument(mError, mName, mIndex, Fault());
        case Cause::Message:
            return ErrorOfMessage(mError, mRemote->GetDestination().c_str(), mRemote->GetPath().c_str(),
                                  nullptr, nullptr);
        case Cause::Sending:
            break;
        case Cause::Reason:
            return *mReason;
    }
    return ErrorOfSending(mError);
}

Detail::PendingBase::PendingBase(CallBase&& call) noexcept : CallBase(std::move(call)) {}
Detail::PendingBase::~PendingBase() = default;

void Detail::PendingBase::Start() noexcept {
    if (!Send()) {
        Postpone();
    }
}

void Detail::PendingBase::Release(std::unique_ptr<PendingBase> call) noexcept {
    if (call != nullptr && call->IsWaiting()) {
        call->mIsReleased = true;
        static_cast<void>(call.release());  // it is its own, see OnDone
    }
}

void Detail::PendingBase::OnDone() {
    const std::unique_ptr<PendingBase> self(mIsReleased ? this : nullptr);
    Run();
}

Pending::Pending() noexcept = default;
Pending::Pending(Pending&& other) noexcept = default;
Pending::Pending(std::unique_ptr<Detail::PendingBase> call) noexcept : mCall(std::move(call)) {}
Pending::~Pending() = default;

Pending& Pending::operator=(Pending&& other) noexcept {
    // The new one is in place when the old one goes, whose handler may own this.
    const std::unique_ptr<Detail::PendingBase> former = std::move(mCall);
    mCall = std::move(other.mCall);
    return *this;
}

bool Pending::IsWaiting() const noexcept {
    return mCall != nullptr && mCall->IsWaiting();
}

void Pending::Reset() noexcept {
    const std::unique_ptr<Detail::PendingBase> former = std::move(mCall);
}

}  // namespace mwl::Typed
