#pragma once

#include <gtest/gtest.h>
#include <tern/diagnostics/contract.h>
#include <tern/diagnostics/diagnostics.h>
#include <tern/diagnostics/recorder.h>
#include <tern/typed/blocking_proxy.h>

#include <optional>
#include <string>
#include <utility>

#include "support/log_capture.h"
#include "support/private_bus.h"
#include "typed/served_bus.h"

namespace tern::test {

/// A service with diagnostics, and a client.
class DiagnosticsTest : public testing::Test {
protected:
    DiagnosticsTest() {
        mServed.emplace([this](Served& served) {
            mRoom = &served.Export("/room");
            mDiagnostics =
                mwl::Diagnostics::Diagnostics::Export(*served.typed, {.recorder = {.version = "1.2.3"}});
            EXPECT_EQ(mDiagnostics.GetStatus(), mw::tern::StatusCode::Ok);
        });
        mServed->onStop = [this] { mDiagnostics.Reset(); };
        mProxy.emplace(SERVICE, mwl::Diagnostics::Diagnostics1::PATH);
    }
    ~DiagnosticsTest() override {
        mServed.reset();
        mwl::Diagnostics::Recorder::End();
    }

    mwl::Diagnostics::Figures Snapshot() {
        auto figures = mProxy->Call(mwl::Diagnostics::Diagnostics1::Snapshot);
        EXPECT_TRUE(figures.IsOk()) << figures.GetError().GetText();
        return figures.IsOk() ? std::move(*figures) : mwl::Diagnostics::Figures();
    }
    std::optional<mwl::Diagnostics::MemberFigures> Member(const std::string& name) {
        for (mwl::Diagnostics::MemberFigures& member : Snapshot().busThread.members) {
            if (member.name == name) {
                return std::move(member);
            }
        }
        return std::nullopt;
    }

    PrivateBus mBus;
    LogCapture mLog;
    Room* mRoom = nullptr;
    mwl::Diagnostics::Diagnostics mDiagnostics;
    std::optional<Served> mServed;
    std::optional<mwl::Typed::BlockingProxy<mwl::Diagnostics::Diagnostics1>> mProxy;
};

}  // namespace tern::test
