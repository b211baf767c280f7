#include <tern/threading/mutex.h>

#include <tern/foundation/log.h>
#include <tern/threading/common.h>

#include <array>
#include <cerrno>
#include <cstddef>

namespace mwl::Threading {

namespace {

/// Status by error number, from 0 to EDEADLK; what lies beyond is a plain failure.
constexpr std::array<StatusCode, EDEADLK + 1> STATUS_BY_ERROR = [] {
    std::array<StatusCode, EDEADLK + 1> table{};
    table.fill(StatusCode::Failure);
    table[0] = StatusCode::Ok;
    table[EPERM] = StatusCode::NotPermitted;
    table[EBUSY] = StatusCode::Busy;
    table[EINVAL] = StatusCode::InvalidArgument;
    table[EDEADLK] = StatusCode::Deadlock;
    return table;
}();

}  // namespace

Mutex::Mutex(Protocol protocol) noexcept {
    pthread_mutexattr_t attributes;
    if (protocol == Protocol::None || pthread_mutexattr_init(&attributes) != 0) {
        return;
    }
    pthread_mutex_t handle;
    if (pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE) == 0 &&
        pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT) == 0 &&
        pthread_mutex_init(&handle, &attributes) == 0) {
        mHandle = handle;
    }
    static_cast<void>(pthread_mutexattr_destroy(&attributes));
}

Mutex::~Mutex() {
    const int error = pthread_mutex_destroy(&mHandle);
    if (error != 0) {
        TERN_LOG_WARNING(Common::mLogger, "~Mutex: pthread_mutex_destroy FAILED (%s)",
                         mw::tern::ConvertStatusCodeToString(GetStatusCode(error)).c_str());
    }
}

StatusCode Mutex::GetStatusCode(int error) {
    // A negative number becomes a huge index.
    const auto index = static_cast<std::size_t>(error);
    return index < STATUS_BY_ERROR.size() ? STATUS_BY_ERROR[index] : StatusCode::Failure;
}

}  // namespace mwl::Threading
