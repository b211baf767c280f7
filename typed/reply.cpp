#include <tern/typed/reply.h>

#include <tern/foundation/log.h>

#include <cerrno>
#include <utility>

#include "foundation/error_text.h"
#include "platform/static_text.h"
#include "service/thrown.h"
#include "typed/bus_core.h"
#include "typed/handles.h"
#include "typed/reply_state.h"

namespace mwl::Typed {

namespace {

const StaticText LOGGER("Typed");

constexpr const char* OUT_OF_MEMORY = "out of memory";
constexpr const char* FAILED_INSIDE = "the service failed internally";

const char* OrEmpty(const char* text) {
    return text == nullptr ? "" : text;
}

/// As for an exception of a handler that answers immediately.
void SendFailedInside(ReplyState& state, const PendingCalls::Call& call, int error) {
    if (error == -ENOMEM) {
        state.SendError(call, SD_BUS_ERROR_NO_MEMORY, OUT_OF_MEMORY);
    } else {
        state.SendError(call, SD_BUS_ERROR_FAILED, FAILED_INSIDE);
    }
}

/// A reply of its own, sent when it is complete. `fill` may be an author's codec, and throw.
template <typename Fill>
void SendReply(ReplyState& state, std::uint64_t id, Fill& fill) noexcept {
    const PendingCalls::Call call = state.Take(id);
    if (call.message == nullptr || !call.isWanted) {
        return;
    }
    sd_bus_message* made = nullptr;
    int r = sd_bus_message_new_method_return(call.message.get(), &made);
    const BusMessage reply(made);
    if (r >= 0) {
        r = mw::tern::Contain(
            -EIO, [&] { return fill(made); },
            [&](const mw::tern::Thrown& thrown) {
                unsigned long omitted = 0;
                if (state.limit.Allows(omitted)) {
                    TERN_LOG_ERROR(LOGGER, "Making an answer threw %s: %s (%lu like it not logged)",
                                   thrown.Type(), thrown.Text(), omitted);
                }
            });
    }
    if (r < 0) {
        state.LogUnsent(call.message.get(), r);
        SendFailedInside(state, call, r);
        return;
    }
    r = sd_bus_send(nullptr, made, nullptr);
    if (r < 0) {
        state.OnUnsent(call.message.get(), r);
    }
}

}  // namespace

PendingCalls::Call ReplyState::Take(std::uint64_t id) noexcept {
    PendingCalls::Call call = calls.Take(id);
    if (call.message != nullptr && calls.IsEmpty() && core != nullptr) {
        core->OnNoCallOpen();
    }
    return call;
}

void ReplyState::SendError(const PendingCalls::Call& call, const char* name, const char* text) noexcept {
    if (call.message == nullptr || !call.isWanted) {
        return;
    }
    const sd_bus_error error{name, text, 0};
    if (const int r = sd_bus_reply_method_error(call.message.get(), &error); r < 0) {
        OnUnsent(call.message.get(), r);
    }
}

void ReplyState::OnUnsent(sd_bus_message* call, int error) noexcept {
    LogUnsent(call, error);
    if (error == -ENOTCONN) {
        return;  // nobody hears
    }
    const bool isMemory = error == -ENOMEM;
    const sd_bus_error failure{isMemory ? SD_BUS_ERROR_NO_MEMORY : SD_BUS_ERROR_FAILED,
                               isMemory ? OUT_OF_MEMORY : FAILED_INSIDE, 0};
    if (const int r = sd_bus_reply_method_error(call, &failure); r < 0) {
        LogUnsent(call, r);
    }
}

void ReplyState::LogUnsent(sd_bus_message* call, int error) noexcept {
    ++unsentReplies;
    unsigned long omitted = 0;
    if (limit.Allows(omitted)) {
        TERN_LOG_ERROR(LOGGER, "Failed to answer %s.%s of %s, asked by %s (%d, %s) (%lu like it not logged)",
                       OrEmpty(sd_bus_message_get_interface(call)), OrEmpty(sd_bus_message_get_member(call)),
                       OrEmpty(sd_bus_message_get_path(call)), OrEmpty(sd_bus_message_get_sender(call)),
                       error, ErrorText(-error), omitted);
    }
}

std::uint64_t TakeOver(ReplyState& state, sd_bus_message* call, sd_bus_error* error) noexcept {
    const std::uint64_t id = state.calls.Add(call, error);
    if (id != 0 && state.core != nullptr) {
        state.core->OnCallOpen();
    }
    return id;
}

ReplyToken::ReplyToken(std::shared_ptr<ReplyState> state, std::uint64_t id) noexcept
    : mState(std::move(state)), mId(id), mPlace(mState->calls.TakePlace(id)) {}

ReplyToken::ReplyToken(ReplyToken&& other) noexcept
    : mState(std::move(other.mState)), mId(std::exchange(other.mId, 0)), mPlace(std::move(other.mPlace)) {}

ReplyToken& ReplyToken::operator=(ReplyToken&& other) noexcept {
    if (this != &other) {
        Drop();
        mState = std::move(other.mState);
        mId = std::exchange(other.mId, 0);
        mPlace = std::move(other.mPlace);
    }
    return *this;
}

ReplyToken::~ReplyToken() {
    Drop();
}

void ReplyToken::Answer(Writer writer) {
    if (mId == 0) {
        return;
    }
    if (mState->dispatcher.IsHere()) {
        SendReply(*mState, std::exchange(mId, 0), writer);
        return;
    }
    Job job = [state = mState.get(), id = mId, writer = std::move(writer)]() mutable {
        SendReply(*state, id, writer);
    };
    mId = 0;
    // Refused when the bus has closed: then it has answered.
    static_cast<void>(mState->dispatcher.Post(std::move(mPlace), std::move(job)));
}

void ReplyToken::Fail(Error error) {
    if (mId == 0) {
        return;
    }
    const auto send = [](ReplyState& state, std::uint64_t id, const Error& sent) {
        state.SendError(state.Take(id), sent.GetName().c_str(), sent.GetText().c_str());
    };
    if (mState->dispatcher.IsHere()) {
        send(*mState, std::exchange(mId, 0), error);
        return;
    }
    Job job = [send, state = mState.get(), id = mId, error = std::move(error)] { send(*state, id, error); };
    mId = 0;
    // As above.
    static_cast<void>(mState->dispatcher.Post(std::move(mPlace), std::move(job)));
}

bool ReplyToken::IsWanted() const noexcept {
    return mId != 0 && mState->calls.IsWanted(mId);
}

/// Needs no memory on this thread.
void ReplyToken::Drop() noexcept {
    if (mId == 0) {
        return;
    }
    const auto drop = [state = mState.get(), id = std::exchange(mId, 0)] {
        const PendingCalls::Call call = state->Take(id);
        state->droppedCalls += call.message != nullptr ? 1 : 0;
        state->SendError(call, SD_BUS_ERROR_FAILED, "the service dropped the call");
    };
    if (mState->dispatcher.IsHere()) {
        drop();
    } else {
        // As above.
        static_cast<void>(mState->dispatcher.Post(std::move(mPlace), drop));
    }
}

}  // namespace mwl::Typed
