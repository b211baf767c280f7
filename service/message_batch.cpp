#include "service/message_batch.h"

#include <sys/socket.h>

#include <cerrno>

namespace mw::tern {

namespace {

/// This thread's batch ends with the message that is being handled.
constinit thread_local bool tIsLast = false;

bool IsEnding(sd_event* loop) {
    int code = 0;
    return sd_event_get_exit_code(loop, &code) != -ENODATA;
}

}  // namespace

// A post source, which becomes pending when another has run, and then waits for its turn behind those that
// have been pending for longer. A defer source would always be the first one: sd-event counts its age from
// its creation. It begins disabled.
int MessageBatch::Open(sd_event* loop) noexcept {
    sd_event_source* source = nullptr;
    int r = sd_event_add_post(loop, &source, OnTurn, this);
    mSource.reset(source);
    return r < 0 ? r : sd_event_source_set_enabled(source, SD_EVENT_OFF);
}

void MessageBatch::BeforeWait() noexcept {
    if (mTurnsToSkip > 0 && --mTurnsToSkip == 0) {
        // Cannot fail: of this process, and valid.
        static_cast<void>(sd_event_source_set_enabled(mSource.get(), SD_EVENT_ON));
    }
}

int MessageBatch::OnTurn(sd_event_source* source, void* userdata) {
    static_cast<MessageBatch*>(userdata)->Handle(sd_event_source_get_event(source));
    return 0;
}

void MessageBatch::Handle(sd_event* loop) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + PERIOD;
    unsigned handled = 0;
    int r = 1;
    tIsLast = false;
    while (r > 0 && handled < MESSAGES &&
           (handled == 0 || (!tIsLast && Clock::now() < end && !IsEnding(loop)))) {
        // Exceptions of a handler pass through.
        r = sd_bus_process(mBus, nullptr);
        handled += r > 0 ? 1 : 0;
    }
    if (r < 0) {
        GiveUp();
    }
    if (r < 0 || handled == 0) {
        static_cast<void>(sd_event_source_set_enabled(mSource.get(), SD_EVENT_OFF));  // as above
        mTurnsToSkip = PAUSE;
    }
}

// Where sd-bus has read itself it takes the failure for a lost connection: whoever waits for a reply is told,
// and then the connection leaves the loop, which ends it. So it gets to read the end. When it still cannot
// be handled by the next look, it is closed without that.
void MessageBatch::GiveUp() {
    if (mIsGivenUp || shutdown(sd_bus_get_fd(mBus), SHUT_RDWR) != 0) {
        sd_bus_close(mBus);
    }
    mIsGivenUp = true;
}

void MessageBatch::EndAfterThisMessage() noexcept {
    tIsLast = true;
}

}  // namespace mw::tern
