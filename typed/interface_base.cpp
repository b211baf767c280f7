#include <tern/foundation/log.h>
#include <tern/typed/attachment.h>
#include <tern/typed/interface_base.h>

#include <utility>

#include "foundation/error_text.h"
#include "foundation/handle.h"
#include "platform/static_text.h"
#include "typed/interface_state.h"

namespace mwl::Typed {

namespace {

const StaticText LOGGER("Typed");

bool Announces(const sd_bus_vtable& entry) {
    return (entry.type == _SD_BUS_VTABLE_PROPERTY || entry.type == _SD_BUS_VTABLE_WRITABLE_PROPERTY) &&
           (entry.flags &
            (SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE | SD_BUS_VTABLE_PROPERTY_EMITS_INVALIDATION)) != 0;
}

}  // namespace

InterfaceBase::InterfaceBase(const char* name)
    : mw::tern::DBusInterface(name), mState(std::make_unique<State>()) {}
InterfaceBase::~InterfaceBase() = default;

void* InterfaceBase::GetUserData() {
    return this;
}

void InterfaceBase::Attach(Attachment& attachment, std::string path) {
    mState->attachment = &attachment;
    mState->path = std::move(path);
    mState->changes = 0;
}

void InterfaceBase::Detach() noexcept {
    mState->attachment = nullptr;
    mState->path.clear();
    mState->changes = 0;
}

Attachment* InterfaceBase::GetAttachment() const noexcept {
    return mState->attachment;
}

const std::string& InterfaceBase::GetPath() const noexcept {
    return mState->path;
}

std::size_t InterfaceBase::TakeChanges(Names& names) noexcept {
    std::size_t count = 0;
    std::uint64_t changes = std::exchange(mState->changes, 0);
    for (const sd_bus_vtable* entry = GetVtable(); changes != 0; ++entry) {
        if (Announces(*entry)) {
            if ((changes & 1) != 0) {
                names[count++] = const_cast<char*>(entry->x.property.member);
            }
            changes >>= 1;
        }
    }
    names[count] = nullptr;
    return count;
}

void InterfaceBase::MarkChanged(unsigned announced) noexcept {
    if (IsAlone()) {
        return;
    }
    const bool isFirst = mState->changes == 0;
    mState->changes |= std::uint64_t{1} << announced;
    if (isFirst) {
        mState->attachment->OnChanged(*this);
    }
}

sd_bus_message* InterfaceBase::BeginSignal(const char* member) noexcept {
    if (IsAlone()) {
        return nullptr;
    }
    sd_bus_message* signal = nullptr;
    const int r = sd_bus_message_new_signal(mState->attachment->GetBus(), &signal, mState->path.c_str(),
                                            GetName().c_str(), member);
    if (r < 0) {
        LogUnsent(member, r);
        return nullptr;
    }
    return signal;
}

int InterfaceBase::Finish(sd_bus_message* signal, int result) noexcept {
    const Handle<sd_bus_message, sd_bus_message_unref> owner(signal);
    if (result >= 0) {
        result = sd_bus_send(nullptr, signal, nullptr);
    }
    if (result < 0) {
        LogUnsent(sd_bus_message_get_member(signal), result);
    }
    return result;
}

bool InterfaceBase::IsAlone() noexcept {
    if (mState->attachment != nullptr) {
        return false;
    }
    if (!std::exchange(mState->hasLoggedThatItIsAlone, true)) {
        TERN_LOG_WARNING(LOGGER,
                         "%s is on no typed bus: its changes and signals go nowhere, and calls cannot be "
                         "answered later",
                         GetName().c_str());
    }
    return true;
}

void InterfaceBase::LogUnsent(const char* member, int error) noexcept {
    unsigned long omitted = 0;
    if (mState->limit.Allows(omitted)) {
        TERN_LOG_ERROR(LOGGER, "Failed to send the signal %s.%s of %s (%d, %s); %lu failures not logged",
                       GetName().c_str(), member, mState->path.c_str(), error, ErrorText(-error), omitted);
    }
}

}  // namespace mwl::Typed
