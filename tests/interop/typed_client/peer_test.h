#pragma once

#include <gtest/gtest.h>
#include <tern/typed/call.h>
#include <tern/typed/peer_watch.h>
#include <tern/typed/task.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "soak/supervisor/child_process.h"
#include "support/private_bus.h"
#include "support/temp_folder.h"
#include "typed/task_bus.h"

namespace tern::test {

/// A typed client on a message bus of its own, and a service of others' making, which it starts and ends. The
/// D-Bus thread is the test's.
class PeerTest : public testing::Test {
public:
    /// What a service that cannot run here ends with.
    static constexpr int SKIPPED = 77;
    /// Whether one has ended so.
    static bool IsSkipped() { return sIsSkipped; }

protected:
    /// Starts the service, and waits until it owns `name`. False: it did not, and a failure, or that it is
    /// left out here, has been told.
    bool StartPeer(const std::vector<std::string>& command, const std::string& name);
    /// What the service has said so far.
    std::string GetPeersLog() const;

    template <typename Predicate>
    bool RunUntil(Predicate holds) {
        return mIt.RunUntil(std::move(holds));
    }

    /// What the call comes to, awaited by a coroutine.
    template <class R>
    mwl::Typed::Outcome<R> Await(mwl::Typed::Call<R> call) {
        std::optional<mwl::Typed::Outcome<R>> outcome;
        const mwl::Typed::Task<> task = Take(std::move(call), outcome);
        EXPECT_TRUE(RunUntil([&] { return outcome.has_value(); })) << "the call has no outcome";
        return outcome ? *std::move(outcome) : mwl::Typed::Outcome<R>(mwl::Typed::Error::Failed("none"));
    }

    const PrivateBus mDaemon;
    const TempFolder mFolder;
    TaskBus mIt;
    soak::ChildProcess mPeer;

private:
    template <class R>
    static mwl::Typed::Task<> Take(mwl::Typed::Call<R> call, std::optional<mwl::Typed::Outcome<R>>& outcome) {
        outcome.emplace(co_await call);
    }

    static bool sIsSkipped;
};

}  // namespace tern::test
