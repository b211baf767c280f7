#include <tern/threading/lock.h>

#include <tern/foundation/log.h>
#include <tern/threading/common.h>

namespace mwl::Threading {

void Lock::ReportLockFailure(int error) noexcept {
    TERN_LOG_WARNING(Common::mLogger, "Lock: pthread_mutex_lock FAILED (%s)",
                     mw::tern::ConvertStatusCodeToString(Mutex::GetStatusCode(error)).c_str());
}

void Lock::ReportUnlockFailure(int error) noexcept {
    TERN_LOG_WARNING(Common::mLogger, "~Lock: pthread_mutex_unlock FAILED (%s)",
                     mw::tern::ConvertStatusCodeToString(Mutex::GetStatusCode(error)).c_str());
}

}  // namespace mwl::Threading
