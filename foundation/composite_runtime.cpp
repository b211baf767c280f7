#include <tern/foundation/composite_runtime.h>

#include <tern/foundation/log.h>

#include <algorithm>
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

StatusCode CompositeRuntime::Initialize() {
    return Advance(mSuccessInitializeCount, &ComponentRuntimeInterface::Initialize);
}

StatusCode CompositeRuntime::Destroy() {
    return Retreat(mSuccessInitializeCount, &ComponentRuntimeInterface::Destroy);
}

StatusCode CompositeRuntime::Start() {
    return Advance(mSuccessStartCount, &ComponentRuntimeInterface::Start);
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

// Size and count are looked at each time: a member may add another one, or call the group, and what that call
// did is not done, and not counted, again.
//
// Fixed by the interface: "Initialize" with a capital, "start" without one, and the two blanks at the end of
// both.
StatusCode CompositeRuntime::Advance(std::size_t& count, Operation operation) {
    while (count < mMembers.size()) {
        const std::size_t index = count;
        const StatusCode status = (mMembers[index]->*operation)();
        if (status != StatusCode::Ok) {
            if (&count == &mSuccessInitializeCount) {
                TERN_LOG_CRITICAL(LOGGER, "Object %zu in Initialize group failed  ", index + 1);
            } else {
                TERN_LOG_CRITICAL(LOGGER, "Object %zu in start group failed  ", index + 1);
            }
            return status;
        }
        count = std::max(count, index + 1);
    }
    return StatusCode::Ok;
}

StatusCode CompositeRuntime::Retreat(std::size_t& count, Operation operation) {
    while (count > 0) {
        const std::size_t index = count - 1;
        const StatusCode status = (mMembers[index]->*operation)();
        if (status != StatusCode::Ok) {
            return status;
        }
        count = std::min(count, index);
    }
    return StatusCode::Ok;
}

}  // namespace mw::tern
