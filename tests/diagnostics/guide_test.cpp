// What docs/diagnostics.md shows, compiled and run.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/diagnostics/contract.h>
#include <tern/diagnostics/diagnostics.h>
#include <tern/diagnostics/ring_reader.h>
#include <tern/typed/blocking_proxy.h>

#include <cinttypes>
#include <cstdio>
#include <optional>
#include <string>

#include "support/private_bus.h"
#include "typed/served_bus.h"

namespace {

namespace Typed = mwl::Typed;
using namespace mwl::Diagnostics;
using tern::test::PrivateBus;
using tern::test::Served;

class Guide : public testing::Test {
protected:
    Guide() {
        mServed.emplace([this](Served& served) { mDiagnostics = Diagnostics::Export(*served.typed); });
        mServed->onStop = [this] { mDiagnostics.Reset(); };
        EXPECT_EQ(mDiagnostics.GetStatus(), mw::tern::StatusCode::Ok);
    }
    ~Guide() override {
        mServed.reset();
        Recorder::End();
    }

    PrivateBus mBus;
    Diagnostics mDiagnostics;
    std::optional<Served> mServed;
};

TEST_F(Guide, FiguresAreReadThroughAProxy) {
    const std::string service = tern::test::SERVICE;
    testing::internal::CaptureStdout();
    const Typed::BlockingProxy<Diagnostics1> proxy(service, Diagnostics1::PATH);
    const Typed::Outcome<Figures> figures = proxy.Call(Diagnostics1::Snapshot);
    if (figures.IsOk()) {
        printf("%" PRIu64 " messages, the longest turn took %" PRIu64 " us\n", figures->busThread.handled,
               figures->busThread.longestTurnUs);
    }
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::MatchesRegex("[0-9]+ messages, the longest turn took [0-9]+ us\n"));
}

TEST_F(Guide, RingIsReadByWhoHasItsDescriptor) {
    testing::internal::CaptureStdout();
    const Typed::BlockingProxy<Diagnostics1> proxy(tern::test::SERVICE, Diagnostics1::PATH);
    const Typed::Outcome<Typed::OwnedFd> ring = proxy.Call(Diagnostics1::OpenRecorder);
    ASSERT_TRUE(ring.IsOk());
    const Typed::Outcome<Flight> flight = RingReader::Read(ring->Get());
    if (flight.IsOk()) {
        for (const FlightThread& thread : flight->threads) {
            printf("%s is in %zu things\n", thread.name.c_str(), thread.doing.size());
        }
    }
    EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::HasSubstr(" things\n"));
}

}  // namespace
