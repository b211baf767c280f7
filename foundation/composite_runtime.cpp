#include <tern/foundation/composite_runtime.h>

#include <tern/foundation/log.h>

#include <string>

#include "platform/static_text.h"

namespace mw::tern {

namespace {

const mwl::StaticText LOGGER("tern.CompositeRuntime");

}  // namespace

CompositeRuntime::CompositeRuntime(std::initializer_list<ComponentRuntimeInterface*> members) {
    mMembers.reserve(members.size());
    for (ComponentRuntimeInterface* const member : members) {
        Add(member);
    }
}

CompositeRuntime::~CompositeRuntime() {
    // Nobody is left to notify; each pass undoes as much as it can.
    static_cast<void>(CompositeRuntime::Stop());
    static_cast<void>(CompositeRuntime::Destroy());
}

// Fixed by the interface: "Initialize" with a capital here, "start" without one below, and the two blanks at
// the end of both.
StatusCode CompositeRuntime::Initialize() {
    const StatusCode status = Advance(mSuccessInitializeCount, &ComponentRuntimeInterface::Initialize);
    if (status != StatusCode::Ok) {
        TERN_LOG_CRITICAL(LOGGER, "Object %zu in Initialize group failed  ", mSuccessInitializeCount + 1);
    }
    return status;
}

StatusCode CompositeRuntime::Destroy() {
    return Retreat(mSuccessInitializeCount, &ComponentRuntimeInterface::Destroy);
}

StatusCode CompositeRuntime::Start() {
    const StatusCode status = Advance(mSuccessStartCount, &ComponentRuntimeInterface::Start);
    if (status != StatusCode::Ok) {
        TERN_LOG_CRITICAL(LOGGER, "Object %zu in start group failed  ", mSuccessStartCount + 1);
    }
    return status;
}

StatusCode CompositeRuntime::Stop() {
    return Retreat(mSuccessStartCount, &ComponentRuntimeInterface::Stop);
}

void CompositeRuntime::Add(ComponentRuntimeInterface* member) {
    if (member == nullptr) {
        TERN_LOG_ERROR(LOGGER, "Refused to add a null object to the group");
        return;
    }
    mMembers.push_back(member);
}

std::size_t CompositeRuntime::Count() const {
    return mMembers.size();
}

std::size_t CompositeRuntime::GetSuccessInitializeCount() const {
    return mSuccessInitializeCount;
}

std::size_t CompositeRuntime::GetSuccessStartCount() const {
    return mSuccessStartCount;
}

// The size is looked at each time: a member may add another one.
StatusCode CompositeRuntime::Advance(std::size_t& count, Operation operation) {
    for (; count < mMembers.size(); ++count) {
        const StatusCode status = (mMembers[count]->*operation)();
        if (status != StatusCode::Ok) {
            return status;
        }
    }
    return StatusCode::Ok;
}

StatusCode CompositeRuntime::Retreat(std::size_t& count, Operation operation) {
    for (; count > 0; --count) {
        const StatusCode status = (mMembers[count - 1]->*operation)();
        if (status != StatusCode::Ok) {
            return status;
        }
    }
    return StatusCode::Ok;
}

}  // namespace mw::tern
