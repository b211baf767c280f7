#include "examples/thermostat/measurement_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <tern/synchronizer/subject.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "examples/thermostat/measurement.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

TERN_INTERPOSE(ssize_t, write, (int fd, const void* data, std::size_t size), (fd, data, size))

namespace {

using mw::tern::StatusCode;
using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::TempFolder;
using thermostat::Measurement;
using thermostat::MeasurementLog;

class MeasurementLogTest : public ::testing::Test {
protected:
    void Notify(double celsius) {
        Measurement measurement(celsius, false);
        mSubject.Notify(measurement);
    }

    std::string Content(const char* name = "/measurements.csv") const {
        std::ifstream file(mFolder.Path() + name);
        std::ostringstream content;
        content << file.rdbuf();
        return content.str();
    }

    LogCapture mLog;
    TempFolder mFolder;
    mwl::tern::Synchronizer::Subject mSubject;
};

}  // namespace

// Two starts that failed once rotated both files away, of a running instance too.
TEST_F(MeasurementLogTest, ARestartGoesOnBehindWhatIsThere) {
    for (const double celsius : {17.5, 18.5, 19.5}) {
        MeasurementLog log(mSubject, mFolder.Path());
        ASSERT_EQ(log.Open(), StatusCode::Ok);
        Notify(celsius);
    }
    EXPECT_EQ(Content(), "17.5,0\n18.5,0\n19.5,0\n");
    EXPECT_EQ(Content("/measurements.1.csv"), "");
}

TEST_F(MeasurementLogTest, NothingIsTouchedBeforeItIsOpened) {
    std::ofstream(mFolder.Path() + "/measurements.csv") << "17,0\n";
    const MeasurementLog log(mSubject, mFolder.Path());
    EXPECT_EQ(Content(), "17,0\n");
}

TEST_F(MeasurementLogTest, AGrownFileIsPutAside) {
    const std::string grown(128 * 1024 - 1, 'x');
    std::ofstream(mFolder.Path() + "/measurements.csv") << grown << '\n';
    MeasurementLog log(mSubject, mFolder.Path());
    ASSERT_EQ(log.Open(), StatusCode::Ok);
    Notify(17.5);
    EXPECT_EQ(Content("/measurements.1.csv"), grown + "\n");
    EXPECT_EQ(Content(), "17.5,0\n");
}

TEST_F(MeasurementLogTest, AFileThatGrowsIsPutAsideOnceFull) {
    std::ofstream(mFolder.Path() + "/measurements.csv") << std::string(128 * 1024 - 8, 'x') << '\n';
    MeasurementLog log(mSubject, mFolder.Path());
    ASSERT_EQ(log.Open(), StatusCode::Ok);
    Notify(17.5);
    EXPECT_EQ(Content("/measurements.1.csv"), "");
    Notify(18.5);
    EXPECT_EQ(Content("/measurements.1.csv").size(), 128U * 1024);
    EXPECT_EQ(Content(), "18.5,0\n");
}

TEST_F(MeasurementLogTest, ALineBrokenOffByAPowerCutIsEnded) {
    std::ofstream(mFolder.Path() + "/measurements.csv") << "17.5,0\n18.";
    MeasurementLog log(mSubject, mFolder.Path());
    ASSERT_EQ(log.Open(), StatusCode::Ok);
    Notify(19.5);
    EXPECT_EQ(Content(), "17.5,0\n18.\n19.5,0\n");
}

// A stream that failed once stays failed until it is opened again: one full disk ended the log for good.
TEST_F(MeasurementLogTest, AfterAFullDiskMeasurementsAreWrittenAgainAndTheLossIsTold) {
    MeasurementLog log(mSubject, mFolder.Path());
    ASSERT_EQ(log.Open(), StatusCode::Ok);
    Notify(17.5);
    {
        const FaultScope scope(fault_write);
        fault_write.Replace(
            [](int, const void*, std::size_t) {
                errno = ENOSPC;
                return ssize_t{-1};
            },
            1000);
        Notify(18.5);
        Notify(19.5);
        EXPECT_GE(fault_write.Calls(), 2);
    }
    Notify(20.5);
    EXPECT_EQ(Content(), "17.5,0\n20.5,0\n");
    EXPECT_EQ(
        mLog.Count(tern::test::Warning("Thermostat", "Measurements cannot be written to " + mFolder.Path() +
                                                         "; the thermostat goes on without")),
        1U);
    EXPECT_EQ(mLog.Count(tern::test::Notice("Thermostat", "Measurements are written again, 2 were lost")),
              1U);
}

// The thermostat did not start on a full disk when its last line had been broken off.
TEST_F(MeasurementLogTest, OnAFullDiskItOpensThoughTheLastLineIsBrokenOff) {
    std::ofstream(mFolder.Path() + "/measurements.csv") << "17.5,0\n18.";
    MeasurementLog log(mSubject, mFolder.Path());
    {
        const FaultScope scope(fault_write);
        fault_write.Fail(-1, ENOSPC, 1000);
        EXPECT_EQ(log.Open(), StatusCode::Ok);
        EXPECT_EQ(fault_write.Calls(), 1);
        Notify(18.5);
        Notify(19.5);
    }
    EXPECT_EQ(Content(), "17.5,0\n18.");
    Notify(20.5);
    EXPECT_EQ(Content(), "17.5,0\n18.\n20.5,0\n");
    EXPECT_EQ(
        mLog.Entries("Thermostat"),
        (std::vector{tern::test::Warning("Thermostat", "Measurements cannot be written to " + mFolder.Path() +
                                                           "; the thermostat goes on without"),
                     tern::test::Notice("Thermostat", "Measurements are written again, 2 were lost")}));
}

TEST_F(MeasurementLogTest, AFolderThatCannotBeMadeIsNamed) {
    MeasurementLog log(mSubject, mFolder.Path() + "/missing/log");
    EXPECT_EQ(log.Open(), StatusCode::NotFound);
    EXPECT_TRUE(
        mLog.Contains(tern::test::Error("Thermostat", "The folder of the measurements, " + mFolder.Path() +
                                                          "/missing/log, cannot be used: NotFound")));
}
