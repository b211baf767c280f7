#include <tern/synchronizer/observer.h>

#include <tern/foundation/log.h>
#include <tern/synchronizer/notification_interface.h>
#include <tern/synchronizer/subject_interface.h>

#include <string>

#include "platform/static_text.h"

namespace mwl::tern::Synchronizer {

namespace {

const StaticText LOGGER("Synchronizer::ObserverInterface");

}  // namespace

Observer::Observer(SubjectInterface& subject) : mSubject(subject) {
    Observer::Init();
}

Observer::~Observer() {
    mSubject.Detach(*this);
}

// Fixed by the interface: the spelling of the text, for which logs are searched.
void Observer::OnNotify(NotificationInterface* notification) {
    TERN_LOG_ERROR(LOGGER,
                   "[%s] Unsuppored Nofitication ID: %d. You need to implement OnNotify on your object",
                   "OnNotify", static_cast<int>(notification->GetIdentifier()));
}

void Observer::Init() {}

}  // namespace mwl::tern::Synchronizer
