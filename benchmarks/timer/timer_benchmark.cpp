// Lateness and processor time of a periodic tick: both timers beside a timerfd in sd-event and Boost.Asio's
// steady_timer.

#include <benchmark/benchmark.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <systemd/sd-event.h>
#include <tern/timer/short_period_timer.h>
#include <tern/timer/timer.h>
#include <time.h>
#include <unistd.h>

#ifdef TERN_HAVE_BOOST
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <vector>

namespace {

std::int64_t Now(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<std::int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
}

/// When the ticks of one run came. The callbacks share it, because one may still be on its way at the end.
class Ticks {
public:
    explicit Ticks(std::size_t count) : mTimes(count) {}

    /// True for the last one.
    bool Record() {
        const std::size_t index = mNext++;
        if (index < mTimes.size()) {
            mTimes[index] = Now(CLOCK_MONOTONIC);
        }
        if (index + 1 == mTimes.size()) {
            mDone.set_value();
            return true;
        }
        return false;
    }
    void WaitForLast() { mDone.get_future().get(); }

    /// Nanoseconds by which each tick came after its due time, in rising order.
    std::vector<std::int64_t> Lateness(std::int64_t start, std::int64_t period) const {
        std::vector<std::int64_t> lateness;
        for (const std::int64_t time : mTimes) {
            lateness.push_back((time - start) % period);
        }
        std::sort(lateness.begin(), lateness.end());
        return lateness;
    }

private:
    std::vector<std::int64_t> mTimes;
    std::atomic<std::size_t> mNext{0};
    std::promise<void> mDone;
};

// Each runs all ticks and returns the instant at which it armed its timer.

struct WithTimer {
    static std::int64_t Run(unsigned int periodMs, const std::shared_ptr<Ticks>& ticks) {
        mwl::Timer::Timer timer(periodMs, true, [ticks] { ticks->Record(); });
        timer.Create();
        const std::int64_t start = Now(CLOCK_MONOTONIC);
        timer.Execute();
        ticks->WaitForLast();
        return start;
    }
};

struct WithShortPeriodTimer {
    static std::int64_t Run(unsigned int periodMs, const std::shared_ptr<Ticks>& ticks) {
        mwl::Timer::ShortPeriodTimer timer(periodMs, true, [ticks] { ticks->Record(); });
        timer.CreateThread();
        timer.CreateTimer();
        const std::int64_t start = Now(CLOCK_MONOTONIC);
        timer.SetTimerTime();
        ticks->WaitForLast();
        timer.Stop();
        return start;
    }
};

struct WithTimerfdInSdEvent {
    static std::int64_t Run(unsigned int periodMs, const std::shared_ptr<Ticks>& ticks) {
        sd_event* event = nullptr;
        sd_event_new(&event);
        const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
        const auto handler = [](sd_event_source* source, int timer, std::uint32_t, void* userdata) {
            std::uint64_t expiries = 0;
            if (read(timer, &expiries, sizeof expiries) == sizeof expiries &&
                static_cast<Ticks*>(userdata)->Record()) {
                sd_event_exit(sd_event_source_get_event(source), 0);
            }
            return 0;
        };
        sd_event_add_io(event, nullptr, fd, EPOLLIN, handler, ticks.get());
        itimerspec time{};
        time.it_value.tv_sec = periodMs / 1000;
        time.it_value.tv_nsec = static_cast<long>(periodMs % 1000) * 1000000;
        time.it_interval = time.it_value;
        const std::int64_t start = Now(CLOCK_MONOTONIC);
        timerfd_settime(fd, 0, &time, nullptr);
        sd_event_loop(event);
        sd_event_unref(event);
        close(fd);
        return start;
    }
};

#ifdef TERN_HAVE_BOOST
struct WithSteadyTimer {
    static std::int64_t Run(unsigned int periodMs, const std::shared_ptr<Ticks>& ticks) {
        boost::asio::io_context context;
        boost::asio::steady_timer timer(context);
        const std::int64_t start = Now(CLOCK_MONOTONIC);
        timer.expires_at(std::chrono::steady_clock::time_point(std::chrono::nanoseconds(start)));
        WaitForNext(timer, periodMs, ticks);
        context.run();
        return start;
    }
    /// From due time to due time, so that lateness does not add up.
    static void WaitForNext(boost::asio::steady_timer& timer, unsigned int periodMs,
                            const std::shared_ptr<Ticks>& ticks) {
        timer.expires_at(timer.expiry() + std::chrono::milliseconds(periodMs));
        timer.async_wait([&timer, periodMs, ticks](const boost::system::error_code& /*error*/) {
            if (!ticks->Record()) {
                WaitForNext(timer, periodMs, ticks);
            }
        });
    }
};
#endif

template <typename Subject>
void PeriodicTick(benchmark::State& state) {
    const auto periodMs = static_cast<unsigned int>(state.range(0));
    const auto count = static_cast<std::size_t>(state.range(1));
    for (auto _ : state) {
        const auto ticks = std::make_shared<Ticks>(count);
        const std::int64_t cpu = Now(CLOCK_PROCESS_CPUTIME_ID);
        const std::int64_t start = Subject::Run(periodMs, ticks);
        const double cpuUs = static_cast<double>(Now(CLOCK_PROCESS_CPUTIME_ID) - cpu) / 1000;
        const std::vector<std::int64_t> lateness = ticks->Lateness(start, periodMs * std::int64_t{1000000});
        state.counters["late_median_us"] = static_cast<double>(lateness[count / 2]) / 1000;
        state.counters["late_p99_us"] = static_cast<double>(lateness[count * 99 / 100]) / 1000;
        state.counters["cpu_per_tick_us"] = cpuUs / static_cast<double>(count);
    }
}

void Periods(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgNames({"period_ms", "ticks"})
        ->Args({1, 3000})
        ->Args({10, 300})
        ->Iterations(1)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
}

BENCHMARK(PeriodicTick<WithTimer>)->Apply(Periods);
BENCHMARK(PeriodicTick<WithShortPeriodTimer>)->Apply(Periods);
BENCHMARK(PeriodicTick<WithTimerfdInSdEvent>)->Apply(Periods);
#ifdef TERN_HAVE_BOOST
BENCHMARK(PeriodicTick<WithSteadyTimer>)->Apply(Periods);
#endif

}  // namespace

BENCHMARK_MAIN();
