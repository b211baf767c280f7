// The dispatcher of the typed layer: jobs for the loop's thread, from others, beside its end.

#include <systemd/sd-event.h>
#include <tern/service/event_loop.h>
#include <tern/typed/dispatcher.h>

#include <atomic>
#include <memory>
#include <thread>
#include <utility>

#include "../scenario.h"

namespace tern::schedules {

namespace {

using mw::tern::EventLoop;
using mw::tern::StatusCode;
using mwl::Typed::Dispatcher;

class Loop : public EventLoop {
public:
    Loop() { Promise(sd_event_new(&mEvent) >= 0, "there are loops"); }
    void RunOnce() { Promise(sd_event_run(mEvent, UINT64_MAX) >= 0, "the loop runs"); }
};

/// Of a job: lives as long as it does.
class Trace {
public:
    explicit Trace(std::atomic<int>& alive) : mAlive(&alive) { ++*mAlive; }
    Trace(Trace&& other) noexcept : mAlive(std::exchange(other.mAlive, nullptr)) {}
    Trace& operator=(Trace&&) = delete;
    ~Trace() {
        if (mAlive != nullptr) {
            --*mAlive;
        }
    }

private:
    std::atomic<int>* mAlive;
};

}  // namespace

TERN_SCENARIO(dispatcher_post, "two threads post, and the loop runs what they have posted, in their order") {
    Loop loop;
    Dispatcher dispatcher;
    Promise(dispatcher.Open(loop) == StatusCode::Ok, "it opens");
    int ran[2] = {0, 0};
    const auto post = [&](int thread, int jobs) {
        Call("poster");
        for (int number = 1; number <= jobs; ++number) {
            Promise(dispatcher.Post([&, thread, number] {
                Promise(dispatcher.IsHere(), "a job runs on the loop's thread");
                Promise(++ran[thread] == number, "in the order of posting");
            }),
                    "an open dispatcher takes a job");
        }
    };
    std::thread one([&] { post(0, 2); });
    std::thread other([&] { post(1, 1); });
    while (ran[0] + ran[1] < 3) {
        loop.RunOnce();
    }
    one.join();
    other.join();
    Promise(dispatcher.GetWaiting() == 0, "nothing is left");
    dispatcher.Close();
}

TERN_SCENARIO(dispatcher_close, "it is closed while two post") {
    std::atomic<int> alive{0};
    std::atomic<int> taken{0};
    int ran = 0;
    {
        Loop loop;
        Dispatcher dispatcher;
        Promise(dispatcher.Open(loop) == StatusCode::Ok, "it opens");
        const auto post = [&] {
            Call("poster");
            if (dispatcher.Post([&ran, trace = Trace(alive)] { ++ran; })) {
                ++taken;
            }
        };
        std::thread one(post);
        std::thread other(post);
        {
            const Stopping stopping;
            Promise(sd_event_run(loop.GetEvent(), 0) >= 0, "the loop runs");
            dispatcher.Close();
            one.join();
            other.join();
        }
        Promise(ran <= taken, "only what was taken runs");
        Promise(dispatcher.GetStatus() == StatusCode::Stopping, "it says so");
        Promise(alive == 0, "what is closed holds no job any more");
    }
}

TERN_SCENARIO(dispatcher_job_closes, "a job closes it and destroys it while another thread posts") {
    std::atomic<int> alive{0};
    Loop loop;
    const auto dispatcher = std::make_shared<Dispatcher>();
    Promise(dispatcher->Open(loop) == StatusCode::Ok, "it opens");
    bool isClosed = false;
    std::thread other([&alive, dispatcher] {
        Call("poster");
        static_cast<void>(dispatcher->Post([trace = Trace(alive)] {}));
        static_cast<void>(dispatcher->Post(Dispatcher::Reserve(), [trace = Trace(alive)] {}));
    });
    Promise(dispatcher->Post([&] {
        dispatcher->Close();
        isClosed = true;
    }),
            "it takes a job");
    while (!isClosed) {
        loop.RunOnce();
    }
    other.join();
    Promise(dispatcher->GetWaiting() == 0 && alive == 0, "nothing is left");
}

}  // namespace tern::schedules
