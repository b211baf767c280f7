#include <tern/typed/interface_base.h>

#include <tern/foundation/log.h>
#include <tern/typed/attachment.h>

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
    mState->tasks.Clear();
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

void InterfaceBase::MarkChanged(std::uint64_t properties) noexcept {
    if (IsAlone()) {
        return;
    }
    const bool isFirst = mState->changes == 0;
    mState->changes |= properties;
    if (isFirst) {
        mState->attachment->OnChanged(*this);
    }
}

StatusCode InterfaceBase::SendSignal(const char* member, Writer writer, const void* values) {
    if (IsAlone()) {
        return StatusCode::NotInitialized;
    }
    sd_bus_message* made = nullptr;
    int r = sd_bus_message_new_signal(mState->attachment->GetBus(), &made, mState->path.c_str(),
                                      GetName().c_str(), member);
    const Handle<sd_bus_message, sd_bus_message_unref> signal(made);
    if (r >= 0) {
        r = writer(made, values);
    }
    if (r >= 0) {
        r = sd_bus_send(nullptr, made, nullptr);
    }
    if (r < 0) {
        LogUnsent(member, r);
    }
    return mw::tern::MakeStatusCodeFromReturnCode(r);
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
    if (mState->failures.Allows(omitted)) {
        TERN_LOG_ERROR(LOGGER, "Failed to send the signal %s.%s of %s (%d, %s) (%lu like it not logged)",
                       GetName().c_str(), member, mState->path.c_str(), error, ErrorText(-error), omitted);
    }
}

}  // namespace mwl::Typed
