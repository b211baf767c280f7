#include "samples.h"

#include <map>
#include <string_view>

#include "findings.h"

namespace ternctl {

using mwl::Diagnostics::Figures;
using mwl::Diagnostics::MemberFigures;

namespace {

/// A call to the service, and none of ours.
bool IsCall(std::string_view member) {
    return !member.starts_with("signal ") && member != "replies" &&
           !member.starts_with(std::string(mwl::Diagnostics::Diagnostics1::NAME) + ".");
}

}  // namespace

void Sampler::Compare(Sample& sample, const Figures& now) const {
    std::map<std::string_view, const MemberFigures*> before;
    for (const MemberFigures& member : mFormer.busThread.members) {
        before[member.name] = &member;
    }
    std::uint64_t calls = 0;
    Latency latency;
    for (const MemberFigures& member : now.busThread.members) {
        if (!IsCall(member.name)) {
            continue;
        }
        const auto found = before.find(member.name);
        const std::uint64_t former = found != before.end() ? found->second->handled : 0;
        calls += member.handled > former ? member.handled - former : 0;
        latency.AddSince(found != before.end() ? found->second->latency : std::vector<std::uint32_t>(),
                         member.latency);
    }
    const std::uint64_t us =
        now.process.uptimeUs > mFormer.process.uptimeUs ? now.process.uptimeUs - mFormer.process.uptimeUs : 0;
    if (us == 0) {
        return;
    }
    sample.calls = static_cast<double>(calls) * 1e6 / static_cast<double>(us);
    if (latency.GetTotal() > 0) {
        sample.medianUs = latency.GetPercentile(0.5);
        sample.highUs = latency.GetPercentile(0.99);
    }
}

void Sampler::Add(double seconds, const std::string& owner, const Figures& figures) {
    Sample sample;
    sample.seconds = seconds;
    sample.takenAtUs = figures.takenAtUs;
    sample.memoryBytes = figures.process.memoryBytes;
    sample.queuedIn = figures.connection.queuedIn;
    sample.queuedOut = figures.connection.queuedOut;
    sample.waitingJobs = figures.connection.waitingJobs;
    for (const auto& pool : figures.pools) {
        sample.poolJobs += pool.queued;
    }
    for (const auto& pipe : figures.pipes) {
        sample.pipeMessages += BacklogOf(pipe);
    }
    if (!mSamples.empty()) {
        sample.isNewLife = owner != mOwner;
        if (!sample.isNewLife) {
            Compare(sample, figures);
        }
    }
    mOwner = owner;
    mFormer = figures;
    mSamples.push_back(sample);
}

}  // namespace ternctl
