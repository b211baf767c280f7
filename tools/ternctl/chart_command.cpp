#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <optional>

#include "atomic_file.h"
#include "chart.h"
#include "commands.h"
#include "interrupt.h"
#include "json.h"
#include "output.h"
#include "samples.h"
#include "service.h"
#include "text.h"

namespace ternctl {

using Clock = Interrupt::Clock;
using std::chrono::milliseconds;
using namespace std::chrono_literals;

namespace {

/// A longer chart has longer steps, so that it stays a picture.
constexpr int MOST_SAMPLES = 1000;

class Watch {
public:
    explicit Watch(const Options& options)
        : mOptions(options),
          mTime(ReadSeconds(options.arguments[1], 1s, 7 * 24h, "time, 1 to 604800 seconds")),
          mStep(std::max<milliseconds>(1s, mTime / MOST_SAMPLES)) {}

    ExitStatus Run() {
        const std::string& file = mOptions.arguments[2];
        CheckPlace(file);
        const Session session(mOptions);
        // Before anything is waited for: is there somebody, and does he let us look?
        mService.emplace(session, mOptions.arguments[0]);
        Sample(session);
        const std::optional<Failure> failure = Look(session);
        EndProgress();
        if (mSampler.GetSamples().size() < 2) {
            if (failure) {
                throw *failure;
            }
            throw Failure("there is nothing to draw: fewer than two looks at '" + mOptions.arguments[0] +
                          "'");
        }
        const double gap = 2.5 * std::chrono::duration<double>(mStep).count();
        WriteAtomically(file, DrawChart(mOptions.arguments[0], mSampler.GetSamples(), gap));
        if (mOptions.isJson) {
            PrintLine(MakeJson());
        }
        if (failure) {
            // Figures that have been seen by then are drawn all the same.
            throw *failure;
        }
        return ExitStatus::Done;
    }

private:
    /// Until the time is over or the person interrupts it; the failure that ended it early, if one did.
    std::optional<Failure> Look(const Session& session) {
        const Interrupt interrupt;
        try {
            for (Clock::time_point next = mBegin + mStep; next <= mBegin + mTime;) {
                if (interrupt.WaitUntil(next) == Interrupt::Reason::Stopped) {
                    break;
                }
                SampleIfThere(session);
                ShowProgress();
                // Looks that were due while an answer was waited for are left out: they would all be late.
                next += mStep * (1 + (Clock::now() - next) / mStep);
            }
        } catch (const Failure& failure) {
            return failure;
        }
        return std::nullopt;
    }

    void Sample(const Session& session) {
        if (!mService) {
            mService.emplace(session, mOptions.arguments[0]);
        }
        const Diagnostics::Figures figures = mService->TakeSnapshot();
        mSampler.Add(std::chrono::duration<double>(Clock::now() - mBegin).count(), mService->GetOwner(),
                     figures);
        mTold.clear();
    }

    /// A service may go and come back, or not answer for a while: a gap.
    void SampleIfThere(const Session& session) {
        try {
            Sample(session);
        } catch (const Failure& failure) {
            switch (failure.GetCause()) {
                case Cause::Late:
                    break;
                case Cause::NotThere:
                case Cause::NoDiagnostics:
                case Cause::Left:
                    mService.reset();
                    break;
                default:
                    EndProgress();
                    throw;
            }
            if (mTold != failure.what()) {
                mTold = failure.what();
                EndProgress();
                Complain(mTold + "; a gap in the chart");
            }
        }
    }

    void ShowProgress() {
        const auto done = std::min<Clock::duration>(Clock::now() - mBegin, mTime);
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(done).count();
        if (isatty(STDERR_FILENO) == 1) {
            fprintf(stderr, "\r%lld s of %lld s", static_cast<long long>(seconds),
                    static_cast<long long>(mTime.count() / 1000));
            mHasProgress = true;
        } else if (done >= mTime * (mTenths + 1) / 10) {
            // In a log a line for each tenth.
            mTenths = static_cast<int>(done * 10 / mTime);
            fprintf(stderr, "ternctl: %lld s of %lld s\n", static_cast<long long>(seconds),
                    static_cast<long long>(mTime.count() / 1000));
        }
    }
    void EndProgress() {
        if (std::exchange(mHasProgress, false)) {
            fputc('\n', stderr);
        }
    }

    std::string MakeJson() const {
        JsonWriter json;
        const auto add = [&json](const char* key, const std::optional<double>& value) {
            json.Key(key);
            value ? json.Value(*value) : json.Null();
        };
        json.Begin('{').Add("Service", mOptions.arguments[0]).Add("File", mOptions.arguments[2]);
        json.Key("Samples").Begin('[');
        for (const ternctl::Sample& sample : mSampler.GetSamples()) {
            json.Begin('{')
                .Add("Seconds", sample.seconds)
                .Add("TakenAtUs", sample.takenAtUs)
                .Add("IsNewLife", sample.isNewLife)
                .Add("MemoryBytes", sample.memoryBytes);
            add("CallsPerSecond", sample.calls);
            add("MedianUs", sample.medianUs);
            add("Percentile99Us", sample.highUs);
            json.Add("QueuedIn", sample.queuedIn)
                .Add("QueuedOut", sample.queuedOut)
                .Add("WaitingJobs", sample.waitingJobs)
                .Add("PoolJobs", sample.poolJobs)
                .Add("PipeMessages", sample.pipeMessages)
                .End('}');
        }
        return json.End(']').End('}').GetText();
    }

    const Options& mOptions;
    const milliseconds mTime;
    const milliseconds mStep;
    const Clock::time_point mBegin = Clock::now();
    std::optional<Service> mService;
    Sampler mSampler;
    std::string mTold;
    bool mHasProgress = false;
    int mTenths = 0;
};

}  // namespace

ExitStatus RunChart(const Options& options) {
    return Watch(options).Run();
}

}  // namespace ternctl
