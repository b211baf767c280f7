#include <tern/diagnostics/recorder.h>

#include <pthread.h>
#include <tern/foundation/log.h>
#include <unistd.h>

#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "diagnostics/descriptor_store.h"
#include "diagnostics/former_life.h"
#include "diagnostics/process_facts.h"
#include "diagnostics/recording.h"
#include "foundation/error_text.h"
#include "platform/static_text.h"

namespace mwl::Diagnostics {

namespace {

const StaticText LOGGER("Diagnostics");

constinit std::mutex gMutex;

// A child that was forked while another thread had the lock finds it free. Not by waiting for that one before
// the fork, as it registers handlers of forks itself.
[[maybe_unused]] const int gAtFork = pthread_atfork(nullptr, nullptr, [] { new (&gMutex) std::mutex(); });

/// Takes over what the former life has left, once in a process. Returns what was handed on.
std::vector<int> MeetFormerLife() {
    static pid_t met = 0;
    if (std::exchange(met, getpid()) == getpid()) {
        return {};
    }
    std::vector<int> handedOn = DescriptorStore::FindHandedOn();
    SetFormerLife(ReadFormerLife(handedOn));
    LogFormerLife(GetFormerLife());
    return handedOn;
}

/// For the next life. That nobody keeps it is no failure: it ends with the process then.
void HandOn(const std::vector<int>& handedOn, int fd) {
    for (const int former : handedOn) {
        if (const int error = DescriptorStore::Replace(former, fd); error != 0) {
            TERN_LOG_TRACE(LOGGER, "The former life's memory is kept: %s", ErrorText(error));
        }
    }
    if (const int r = DescriptorStore::Store(fd); r <= 0) {
        TERN_LOG_TRACE(LOGGER, "The flight recorder ends with this process: %s",
                       r == 0 ? "no service manager keeps it" : ErrorText(-r));
    }
}

}  // namespace

StatusCode Recorder::Begin(const RecorderOptions& options) {
    const std::lock_guard lock(gMutex);
    if (Recording::IsOn()) {
        return StatusCode::Ok;
    }
    const std::vector<int> handedOn = options.isKept ? MeetFormerLife() : std::vector<int>();
    const Ring::Identity identity{ReadProgram(),          options.version,
                                  ReadBootId(),           GetFormerLife().restarts,
                                  ReadProcessStartedNs(), ReadWatchdogNs()};
    int error = 0;
    const StatusCode status = Recording::Start(options.eventBytes, identity, error);
    if (status != StatusCode::Ok) {
        TERN_LOG_ERROR(LOGGER, "The flight recorder's memory cannot be made: %s (%d)", ErrorText(error),
                       error);
    } else if (options.isKept && !Recording::IsChildOfOne()) {
        // What a child of the service left with systemd would be in the place of the service's own.
        HandOn(handedOn, GetFd());
    }
    return status;
}

void Recorder::End() noexcept {
    Recording::Stop();
}

bool Recorder::IsRecording() noexcept {
    return Recording::IsOn();
}

int Recorder::GetFd() noexcept {
    return Recording::GetRing().GetFd();
}

}  // namespace mwl::Diagnostics
