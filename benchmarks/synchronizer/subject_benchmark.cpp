// How the cost of a subject grows with its observers: registering them all, notifying them all, ending all.

#include <benchmark/benchmark.h>
#include <tern/synchronizer/notification_interface.h>
#include <tern/synchronizer/observer_interface.h>
#include <tern/synchronizer/subject.h>

#include <cstddef>
#include <vector>

namespace {

using mwl::tern::Synchronizer::NotificationIdentifier;
using mwl::tern::Synchronizer::NotificationInterface;

class Counter : public mwl::tern::Synchronizer::ObserverInterface {
public:
    void OnNotify(NotificationInterface* /*notification*/) override { benchmark::DoNotOptimize(++mCalls); }

private:
    int mCalls = 0;
};

/// A subject, its observers, and the one kind of notification they are about.
struct Party {
    explicit Party(benchmark::State& state) : observers(static_cast<std::size_t>(state.range(0))) {}
    void AttachAll() {
        for (Counter& observer : observers) {
            subject.Attach(observer, notification);
        }
    }
    void DetachAll() {
        for (const Counter& observer : observers) {
            subject.Detach(observer);
        }
    }

    NotificationInterface notification{NotificationIdentifier{1}};
    mwl::tern::Synchronizer::Subject subject;
    std::vector<Counter> observers;
};

void AttachAndDetach(benchmark::State& state) {
    Party party(state);
    for (auto _ : state) {
        party.AttachAll();
        party.DetachAll();
    }
}

void Notify(benchmark::State& state) {
    Party party(state);
    party.AttachAll();
    for (auto _ : state) {
        party.subject.Notify(party.notification);
    }
}

BENCHMARK(AttachAndDetach)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(Notify)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
