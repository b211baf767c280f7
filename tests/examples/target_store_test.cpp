#include "examples/thermostat/target_store.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include <fstream>
#include <sstream>
#include <string>

#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

TERN_INTERPOSE(ssize_t, write, (int fd, const void* data, std::size_t size), (fd, data, size))
TERN_INTERPOSE(int, fsync, (int fd), (fd))
TERN_INTERPOSE(int, close, (int fd), (fd))
TERN_INTERPOSE(int, rename, (const char* from, const char* to), (from, to))

namespace {

using mw::tern::StatusCode;
using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::TempFolder;
using thermostat::TargetStore;

class TargetStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(mStore.Open(), StatusCode::Ok);
        ASSERT_EQ(mStore.Save(21.5), StatusCode::Ok);
    }

    std::string Stored() const {
        std::ifstream file(mFolder.Path() + "/state/target");
        std::ostringstream content;
        content << file.rdbuf();
        return content.str();
    }

    /// The caller hears of the failure, and the former target is what a restart finds.
    void ExpectRefusedAndKept(StatusCode expected) {
        EXPECT_EQ(mStore.Save(10.0), expected);
        EXPECT_EQ(Stored(), "21.500000\n");
        EXPECT_EQ(mStore.Load(), 21.5);
    }

    LogCapture mLog;
    TempFolder mFolder;
    TargetStore mStore{mFolder.Path() + "/state"};
};

}  // namespace

TEST_F(TargetStoreTest, KeepsTheTargetForTheNextRun) {
    EXPECT_EQ(TargetStore(mFolder.Path() + "/state").Load(), 21.5);
}

// A full disk once left an empty file in the target's place, and the caller heard success.
TEST_F(TargetStoreTest, AFullDiskIsReportedAndKeepsTheFormerTarget) {
    const FaultScope scope(fault_write);
    fault_write.Fail(-1, ENOSPC);
    ExpectRefusedAndKept(StatusCode::IoError);
}

TEST_F(TargetStoreTest, ADiskThatTakesAPartOnlyIsReportedAndKeepsTheFormerTarget) {
    const FaultScope scope(fault_write);
    bool full = false;
    fault_write.Replace(
        [&full](int fd, const void* data, std::size_t) {
            if (full) {
                errno = ENOSPC;
                return ssize_t{-1};
            }
            full = true;
            return fault_write.Real(fd, data, 3);
        },
        2);
    ExpectRefusedAndKept(StatusCode::IoError);
}

TEST_F(TargetStoreTest, WhatTheDiskCannotKeepIsReportedAndKeepsTheFormerTarget) {
    const FaultScope scope(fault_fsync);
    fault_fsync.Fail(-1, EIO);
    ExpectRefusedAndKept(StatusCode::IoError);
}

TEST_F(TargetStoreTest, AnErrorThatShowsAtClosingIsReportedAndKeepsTheFormerTarget) {
    const FaultScope scope(fault_close);
    fault_close.Replace([](int fd) {
        fault_close.Real(fd);
        errno = ENOSPC;
        return -1;
    });
    ExpectRefusedAndKept(StatusCode::IoError);
}

TEST_F(TargetStoreTest, AFailedReplacementIsReportedAndKeepsTheFormerTarget) {
    const FaultScope scope(fault_rename);
    fault_rename.Fail(-1, EROFS);
    ExpectRefusedAndKept(StatusCode::AccessDenied);
}

// Before the folder is on the disk a power cut may bring the former target back.
TEST_F(TargetStoreTest, TheFolderIsWrittenToTheDiskLast) {
    const FaultScope scope(fault_fsync);
    fault_fsync.Fail(-1, EIO, 1, 1);
    EXPECT_EQ(mStore.Save(10.0), StatusCode::IoError);
    EXPECT_EQ(fault_fsync.Calls(), 2);
    EXPECT_EQ(Stored(), "10.000000\n");
}

TEST_F(TargetStoreTest, SomethingElseInTheFileIsToldAndNotTaken) {
    for (const std::string content : {"", "warm", "4.9", "30.1", "nan"}) {
        std::ofstream(mFolder.Path() + "/state/target") << content;
        mLog.Clear();
        EXPECT_EQ(mStore.Load(), std::nullopt) << content;
        EXPECT_TRUE(mLog.Contains(tern::test::Warning(
            "Thermostat",
            mFolder.Path() + "/state/target holds no target from 5 to 30, the settings' is taken")))
            << content;
    }
}

TEST_F(TargetStoreTest, AFolderThatCannotBeMadeIsNamed) {
    const TargetStore store(mFolder.Path() + "/missing/state");
    EXPECT_EQ(store.Open(), StatusCode::NotFound);
    EXPECT_TRUE(
        mLog.Contains(tern::test::Error("Thermostat", "The folder of the target, " + mFolder.Path() +
                                                          "/missing/state, cannot be used: NotFound")));
}
