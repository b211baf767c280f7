#include <tern/threading/thread_manager.h>

#include <type_traits>

#include "support/log_capture.h"
#include "threading/supervision_doubles.h"

namespace mwl::Threading {
namespace {

using tern::test::Info;
using tern::test::LogCapture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Ref;
using ::testing::StrictMock;

class IdleWorker : public ThreadManager {
public:
    using ThreadManager::ThreadManager;
    void Stop() override {}
};

class ThreadManagerTest : public ::testing::Test {
protected:
    StrictMock<MockMonitor> mMonitor;
    IdleWorker mWorker{mMonitor};
    LogCapture mLog;
};

TEST_F(ThreadManagerTest, HasNoThreadAtFirst) {
    EXPECT_EQ(mWorker.GetThreadId(), 0UL);
    EXPECT_TRUE(std::is_abstract_v<ThreadManager>);
    EXPECT_FALSE(std::is_copy_constructible_v<IdleWorker>);
}

TEST_F(ThreadManagerTest, DerivedClassStoresTheThreadId) {
    EXPECT_EQ(StrictMock<MockWorker>(mMonitor, 4711).GetThreadId(), 4711UL);
}

TEST_F(ThreadManagerTest, NotifyStartedRegistersIt) {
    EXPECT_CALL(mMonitor, AddWorkerThread(Ref(mWorker)));
    mWorker.NotifyStarted();
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(ThreadManagerTest, NotifyStoppedTakesItBack) {
    EXPECT_CALL(mMonitor, RemoveWorkerThread(Ref(mWorker)));
    mWorker.NotifyStopped();
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(ThreadManagerTest, NotifyStopEndsTheServiceNominally) {
    EXPECT_CALL(mMonitor, NotifyDBusThreadToStop(false));
    mWorker.NotifyStop();
    EXPECT_THAT(mLog.Entries(),
                ElementsAre(Info("Threading::ThreadManager", "Notify D-Bus thread to stop nominally")));
}

TEST_F(ThreadManagerTest, NotifyFailureEndsTheServiceOnFailure) {
    EXPECT_CALL(mMonitor, NotifyDBusThreadToStopOnFailure());
    mWorker.NotifyFailure();
    EXPECT_THAT(mLog.Entries(),
                ElementsAre(Info("Threading::ThreadManager", "Notify D-Bus thread to stop on failure")));
}

}  // namespace
}  // namespace mwl::Threading
