#include <tern/typed/handling.h>

#include <tern/foundation/log.h>
#include <tern/typed/attachment.h>
#include <tern/typed/interface_base.h>
#include <tern/typed/reply.h>
#include <tern/typed/task.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <utility>

#include "foundation/error_text.h"
#include "foundation/handle.h"
#include "platform/static_text.h"
#include "service/thrown.h"
#include "typed/call_probe.h"
#include "typed/interface_state.h"
#include "typed/reading.h"
#include "typed/reply_state.h"

namespace mwl::Typed {

namespace {

const StaticText LOGGER("Typed");

using Message = Handle<sd_bus_message, sd_bus_message_unref>;

constexpr const char* FAILED_INSIDE = "the service failed internally";

const char* OrNobody(const char* sender) {
    return sender != nullptr ? sender : "nobody";
}

}  // namespace

Handling::Handling(Of of, sd_bus_message* message, void* userdata, sd_bus_error* error,
                   const char* names) noexcept
    : mOf(of),
      mMessage(message),
      mInterface(*static_cast<InterfaceBase*>(userdata)),
      mError(error),
      mNames(names) {}

int Handling::RunMethod(sd_bus_message* call, void* userdata, sd_bus_error* error, Body body,
                        const char* names) noexcept {
    Handling handling(Of::Method, call, userdata, error, names);
    return handling.Run(body);
}

int Handling::RunCheckedMethod(sd_bus_message* call, void* userdata, sd_bus_error* error, Body body,
                               const char* names, int capability, sd_bus_message_handler_t handler) noexcept {
    Handling handling(Of::Method, call, userdata, error, names);
    Attachment* const attachment = handling.mInterface.GetAttachment();
    int r = 0;
    if (attachment != nullptr) {
        r = attachment->CheckCaller(handling.mInterface, call, capability, handler, userdata, error);
        if (r == 0) {
            return DONE;
        }
    } else {
        r = sd_bus_is_trusted(sd_bus_message_get_bus(call));
        r = r != 0 ? r : sd_bus_query_sender_privilege(call, capability);
        if (r == 0) {
            r = sd_bus_error_setf(error, SD_BUS_ERROR_ACCESS_DENIED, "Access to %s.%s() not permitted.",
                                  handling.mInterface.GetName().c_str(), sd_bus_message_get_member(call));
        }
    }
    if (r < 0) {
        handling.LogRefusal(r);
        return r;
    }
    return handling.Run(body);
}

int Handling::RunGetter(const char* path, const char* member, sd_bus_message* reply, void* userdata,
                        sd_bus_error* error, Body body) noexcept {
    Handling handling(Of::Getter, reply, userdata, error, nullptr);
    handling.mPath = path;
    handling.mMember = member;
    return handling.Run(body);
}

int Handling::RunSetter(const char* path, const char* member, sd_bus_message* value, void* userdata,
                        sd_bus_error* error, Body body) noexcept {
    Handling handling(Of::Setter, value, userdata, error, nullptr);
    handling.mPath = path;
    handling.mMember = member;
    return handling.Run(body);
}

int Handling::Run(Body body) noexcept {
    const auto run = [this, body]() noexcept {
        try {
            const int result = body(*this);
            // sd-bus answers the accesses to properties itself.
            return result == 0 && mOf == Of::Method ? Answer(nullptr, nullptr) : result;
        } catch (...) {
            return RefuseException();
        }
    };
    if (CallProbe::IsWanted()) {
        const Names names = GetNames();
        const CallProbe probe(&mInterface, names.interface, names.member, names.sender);
        return run();
    }
    return run();
}

int Handling::Answer(Writer writer, const void* value) {
    if (mOf != Of::Method) {
        const int r = writer(mMessage, value);
        return r < 0 ? FailInside("the value cannot be sent", r) : DONE;
    }
    if (sd_bus_message_get_expect_reply(mMessage) <= 0) {
        return DONE;
    }
    // A message of its own, sent when it is complete: who fails on the way leaves nothing behind.
    sd_bus_message* made = nullptr;
    int r = sd_bus_message_new_method_return(mMessage, &made);
    const Message reply(made);
    if (r >= 0 && writer != nullptr) {
        r = writer(made, value);
    }
    if (r < 0) {
        return FailInside("the result cannot be sent", r);
    }
    r = sd_bus_send(nullptr, made, nullptr);
    return r < 0 ? FailInside("the reply was not sent", r) : DONE;
}

int Handling::Set(const char* name, const char* text) noexcept {
    const int r = sd_bus_error_set(mError, name, text);
    // Whatever sd-bus makes of the name, an error is an error.
    return r < 0 ? r : -EIO;
}

int Handling::Refuse(const Error& error) noexcept {
    const int r = Set(error.GetName().c_str(), error.GetText().c_str());
    LogRefusal(r);
    return r;
}

int Handling::Refuse(StatusCode status) {
    return status == StatusCode::Ok ? 0 : Refuse(Error(status));
}

int Handling::RefuseArgument(unsigned index, int result, const Fault& fault) {
    std::string text = mOf == Of::Method ? "argument '" : "property '";
    if (mOf != Of::Method) {
        text.append(mMember);
    } else if (*mNames != '\0') {
        const char* name = mNames;
        for (; index > 0; --index) {
            name += std::strlen(name) + 1;
        }
        text.append(name);
    } else {
        text.append(std::to_string(index + 1));
    }
    text.append(fault.where).append("': ").append(fault.text[0] != '\0' ? fault.text : ErrorText(-result));
    return Refuse(Error(fault.text[0] != '\0' ? StatusCode::InvalidArgument : StatusOfReading(result), text));
}

std::uint64_t Handling::Defer(std::shared_ptr<ReplyState>& state) noexcept {
    std::uint64_t id = 0;
    if (mInterface.IsAlone()) {
        Set(SD_BUS_ERROR_FAILED, "the interface has no typed bus");
    } else if ((state = mInterface.GetAttachment()->GetReplies()) == nullptr) {
        Set(SD_BUS_ERROR_NO_REPLY, "the service is stopping");
    } else {
        id = TakeOver(*state, mMessage, mError);
    }
    mIsDeferred = id != 0;
    if (id == 0) {
        LogRefusal(-EIO);
    }
    return id;
}

void Handling::MarkChanged(std::uint64_t properties) noexcept {
    mInterface.MarkChanged(properties);
}

void Handling::Keep(Task<void>&& task) noexcept {
    Task<void> taken = std::move(task);
    // One that has taken its own object from the bus ends here, where it waits: nobody else would end it
    // before the object.
    if (mInterface.GetAttachment() != nullptr) {
        mInterface.mState->tasks.Add(std::move(taken));
    }
}

template <class Refusal>
void Handling::AnswerLater(ReplyToken& reply, InterfaceBase& interface, Refusal refuse) noexcept {
    sd_bus_message* const call = reply.mId != 0 ? reply.mState->calls.Find(reply.mId) : nullptr;
    if (call == nullptr) {
        return;
    }
    sd_bus_error error{};
    Handling handling(Of::Method, call, &interface, &error, "");
    static_cast<void>(refuse(handling));
    // Without a name there was no memory for one.
    reply.mState->SendError(reply.mState->Take(std::exchange(reply.mId, 0)),
                            error.name != nullptr ? error.name : SD_BUS_ERROR_NO_MEMORY,
                            error.name != nullptr ? error.message : "out of memory");
    sd_bus_error_free(&error);
}

void Handling::RefuseLater(ReplyToken& reply, InterfaceBase& interface, const Error& error) noexcept {
    AnswerLater(reply, interface, [&](Handling& handling) { return handling.Refuse(error); });
}

void Handling::RefuseExceptionLater(ReplyToken& reply, InterfaceBase& interface) noexcept {
    AnswerLater(reply, interface, [](Handling& handling) { return handling.RefuseException(); });
}

int Handling::RefuseException() noexcept {
    try {
        throw;
    } catch (const Error& error) {
        if (!mIsDeferred) {
            return Refuse(error);
        }
    } catch (const std::bad_alloc&) {
        if (!mIsDeferred) {
            Set(SD_BUS_ERROR_NO_MEMORY, "out of memory");
        }
    } catch (...) {
        if (!mIsDeferred) {
            Set(SD_BUS_ERROR_FAILED, FAILED_INSIDE);
        }
    }
    unsigned long omitted = 0;
    if (mInterface.mState->failures.Allows(omitted)) {
        const mw::tern::Thrown thrown;
        const Names names = GetNames();
        TERN_LOG_ERROR(LOGGER, "%s.%s of %s, asked by %s, threw %s: %s (%lu like it not logged)",
                       names.interface, names.member, names.path, names.sender, thrown.Type(), thrown.Text(),
                       omitted);
    }
    // The token of a call that is answered later has seen to the answer when it was destroyed, or will.
    return mIsDeferred ? DONE : -EIO;
}

int Handling::FailInside(const char* what, int error) noexcept {
    unsigned long omitted = 0;
    if (mInterface.mState->failures.Allows(omitted)) {
        const Names names = GetNames();
        TERN_LOG_ERROR(LOGGER, "%s.%s of %s, asked by %s: %s (%d, %s) (%lu like it not logged)",
                       names.interface, names.member, names.path, names.sender, what, error,
                       ErrorText(-error), omitted);
    }
    return error == -ENOMEM ? Set(SD_BUS_ERROR_NO_MEMORY, "out of memory")
                            : Set(SD_BUS_ERROR_FAILED, FAILED_INSIDE);
}

void Handling::LogRefusal(int result) noexcept {
    unsigned long omitted = 0;
    if (mInterface.mState->refusals.Allows(omitted)) {
        const Names names = GetNames();
        TERN_LOG_INFO(LOGGER, "%s.%s of %s, asked by %s, refused: %s (%lu like it not logged)",
                      names.interface, names.member, names.path, names.sender,
                      sd_bus_error_is_set(mError) > 0 ? mError->name : ErrorText(-result), omitted);
    }
}

Handling::Names Handling::GetNames() const noexcept {
    Names names{nullptr, mPath, mInterface.GetName().c_str(), mMember};
    sd_bus_message* asked = mMessage;
    if (mOf == Of::Getter) {
        asked = sd_bus_get_current_message(sd_bus_message_get_bus(mMessage));
    } else if (mOf == Of::Method) {
        names.path = sd_bus_message_get_path(mMessage);
        names.member = sd_bus_message_get_member(mMessage);
    }
    names.sender = OrNobody(asked != nullptr ? sd_bus_message_get_sender(asked) : nullptr);
    return names;
}

}  // namespace mwl::Typed
