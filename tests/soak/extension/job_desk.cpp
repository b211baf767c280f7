#include "job_desk.h"

#include <sys/epoll.h>

#include <utility>

using mwl::StatusCode;

namespace soak {

StatusCode JobDesk::Open(mw::tern::EventLoop& loop) {
    const StatusCode status = mResults.Initialize();
    return status != StatusCode::Ok
               ? status
               : loop.AddIo(mResults.GetReadFd(), EPOLLIN,
                            [this](sd_event_source*, int, unsigned int) { return OnDone(); });
}

void JobDesk::Submit(sd_bus_message* call, std::function<StatusCode(Jobs& jobs)> job) {
    const std::uint64_t number = ++mNumber;
    mCalls[number] = sd_bus_message_ref(call);
    mPool.Queue([this, number, job = std::move(job)] {
        const Result result{number, job(mJobs)};
        static_cast<void>(mResults.WriteMessage(&result, sizeof result));
    });
}

void JobDesk::Close() {
    mResults.Close();
    for (const auto& [number, call] : mCalls) {
        sd_bus_message_unref(call);
    }
    mCalls.clear();
}

StatusCode JobDesk::OnDone() {
    Result result{};
    const StatusCode status = mResults.ReadMessage(&result, sizeof result, 0);
    const auto found = mCalls.find(result.number);
    if (status == StatusCode::Ok && found != mCalls.end()) {
        sd_bus_reply_method_return(found->second, "u", static_cast<unsigned int>(result.status));
        sd_bus_message_unref(found->second);
        mCalls.erase(found);
    }
    return status;
}

}  // namespace soak
