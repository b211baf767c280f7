#include <tern/service/event_loop.h>

#include <systemd/sd-event.h>
#include <tern/foundation/log.h>
#include <tern/foundation/service_common.h>

#include <cerrno>
#include <utility>

#include "service/thrown.h"

namespace mw::tern {

namespace {

/// An exception of a callback ends here, because sd-event is C. The one that an empty callback raises has to
/// leave.
int Dispatch(sd_event_source* source, int fd, uint32_t revents, void* userdata) {
    const std::shared_ptr<EventIoContext> context = static_cast<EventIoContext*>(userdata)->self.lock();
    if (!context->callback) {
        TERN_LOG_CRITICAL(ServiceCommon::mLogger, "The callback of descriptor %d is empty", fd);
        throw std::bad_function_call();
    }
    const StatusCode status = Contain(
        StatusCode::Failure, [&] { return context->callback(source, fd, revents); },
        [&](const Thrown& thrown) {
            TellThrown(thrown);
            TERN_LOG_CRITICAL(ServiceCommon::mLogger, "The callback of descriptor %d threw %s: %s", fd,
                              thrown.Type(), thrown.Text());
            sd_event_exit(sd_event_source_get_event(source), -ENOTRECOVERABLE);
        });
    return status == StatusCode::Ok ? 0 : -1;
}

}  // namespace

EventIoContext::~EventIoContext() {
    sd_event_source_unref(source);
}

// What a callback owns may come back here when it is destroyed, to remove its watch: it finds nothing, and no
// loop.
EventLoop::~EventLoop() {
    mEvent = sd_event_unref(mEvent);
    const auto ioContexts = std::exchange(mIoContexts, {});
    const auto unlistedContexts = std::exchange(mUnlistedContexts, {});
}

StatusCode EventLoop::AddIo(int fd, unsigned int events, EventIoContext::Callback callback) {
    auto context = std::make_shared<EventIoContext>(std::move(callback));
    context->self = context;
    const int r = sd_event_add_io(mEvent, &context->source, fd, events, Dispatch, context.get());
    if (r < 0) {
        return MakeStatusCodeFromErrno(-r);
    }
    if (const auto [entry, isNew] = mIoContexts.try_emplace(fd, context); !isNew) {
        mUnlistedContexts.push_back(std::move(context));
    }
    return StatusCode::Ok;
}

StatusCode EventLoop::RemoveIo(int fd) {
    const auto found = mIoContexts.find(fd);
    if (found == mIoContexts.end()) {
        return StatusCode::InvalidArgument;
    }
    const int r = sd_event_source_set_enabled(found->second->source, SD_EVENT_OFF);
    if (r < 0) {
        return MakeStatusCodeFromErrno(-r);
    }
    mIoContexts.erase(found);
    return StatusCode::Ok;
}

}  // namespace mw::tern
